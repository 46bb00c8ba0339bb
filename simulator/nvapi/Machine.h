#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

// The machine as the simulated NVAPI sees it, read from the scenario (see
// README.md): the GPUs with an "nvapi" section, in scenario order, their
// logical GPUs, and the system-wide settings.
namespace simnvapi {

constexpr std::size_t maxGpus = 64;        // NVAPI's array size for handles
constexpr std::size_t maxSensors = 3;      // thermal sensors NVAPI reports per GPU
constexpr std::size_t clockDomains = 32;   // public clock domains
constexpr std::size_t clockTypes = 3;      // current, base, boost

struct Clock {
    bool present = false;
    std::uint32_t frequency = 0; // kHz
};

struct Sensor {
    std::int32_t controller = 1;
    std::int32_t minimum = 0;
    std::int32_t maximum = 127;
    std::int32_t current = 0;
    std::int32_t target = 1;
};

// Video memory in KB, in the order of the memory-info structure's fields.
enum MemoryField { dedicated, available, system, sharedSystem, curAvailable, evictionsSize, evictionCount, memoryFields };

struct Gpu {
    std::string name;
    std::uint32_t busId = 0;
    std::uint32_t slotId = 0;
    std::string vbios;
    std::uint32_t coreCount = 0;
    std::uint32_t memory[memoryFields] = {};
    Clock clocks[clockTypes][clockDomains];
    std::int32_t busType = 3;
    bool eccSupported = false;
    bool eccEnabled = false;
    std::int32_t eccConfiguration = 0;
    std::int32_t systemType = 2;
    std::uint32_t tach = 0;
    std::vector<Sensor> sensors; // at most maxSensors
    std::size_t logical = 0;     // index of its logical GPU
};

struct Machine {
    std::vector<Gpu> gpus;                             // NVAPI's enumeration order
    std::vector<std::vector<std::size_t>> logicalGpus; // the physical GPUs of each logical GPU
    std::uint32_t driverVersion = 45206;
    std::string branch = "r452_00";
    bool stereo = false;
    bool oldDriver = false; // accepts thermal settings of revision 1 only
};

Machine readMachine(const nlohmann::json& scenario);

} // namespace simnvapi
