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

} // namespace kestrel::test
