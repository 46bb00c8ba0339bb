#pragma once

#include <cstdint>

// Where a reading stops being a GPU's state and becomes a driver's error. No
// GPU board draws, or is let draw, 10 kW; none runs at 200 degrees Celsius (a
// sensor that reads so is broken or unwired); none counts more energy than
// 10 kW would use in a century. PCIe has generations 1 (2.5 GT/s) to 7
// (128 GT/s) and links of 1 to 32 lanes; performance states run from P0 to
// P15. A source leaves a reading outside these out, and says so.
namespace libKestrel::plausible {

constexpr std::uint64_t mostMilliwatts = 10'000'000;
constexpr std::uint64_t mostDegreesCelsius = 200;
constexpr std::uint64_t mostMillijoules = mostMilliwatts * 3'155'760'000ull; // a century of seconds
constexpr std::uint64_t leastPCIeGeneration = 1;
constexpr std::uint64_t mostPCIeGeneration = 7;
constexpr std::uint64_t leastPCIeLanes = 1;
constexpr std::uint64_t mostPCIeLanes = 32;
constexpr std::uint64_t mostPerformanceState = 15;

} // namespace libKestrel::plausible
