#pragma once

#include <string>
#include <vector>

#include "common/LogCapture.h"

namespace kestrel::test {

#if defined(_WIN32)
inline const char* const cudaDriverFile = "nvcuda.dll";
#else
inline const char* const cudaDriverFile = "libcuda.so.1";
#endif

// The CUDA source's messages as "priority|text", without its trace lines.
inline std::vector<std::string> cudaMessages(const LogCapture& capture)
{
    std::vector<std::string> messages;
    for (const auto& line : capture.of("libKestrel.NVidiaCudaGPUQuerierMulti"))
        if (line.rfind("1|Entering ", 0) != 0 && line.rfind("1|Leaving ", 0) != 0)
            messages.push_back(line);
    return messages;
}

} // namespace kestrel::test
