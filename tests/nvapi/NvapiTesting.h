#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/LogCapture.h"
#include "libKestrel/internal/windows/NVidia/nvapiwrapper.h"

namespace kestrel::test {

// Lines of one logger that start with 'prefix' ("3|28 "), in order.
inline std::vector<std::string> messagesStartingWith(const LogCapture& capture, const std::string& logger,
                                                     const std::string& prefix)
{
    std::vector<std::string> result;
    for (const auto& line : capture.of(logger))
        if (line.compare(0, prefix.size(), prefix) == 0)
            result.push_back(line);
    return result;
}

// NVAPI is not held: no reference, no module, no entry left to call.
inline void expectNvapiReleased()
{
    const libKestrel::NvAPIBinding& binding = libKestrel::nvapiBinding();
    EXPECT_EQ(binding.references, 0u);
    EXPECT_FALSE(binding.library.isLoaded());
    EXPECT_EQ(binding.functions.NvAPI_Initialize, nullptr);
    EXPECT_EQ(binding.functions.NvAPI_GPU_GetBusId, nullptr);
    EXPECT_EQ(binding.functions.NvAPI_Stereo_IsEnabled, nullptr);
}

} // namespace kestrel::test
