#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/LogCapture.h"
#include "libKestrel/IGPU.h"

namespace kestrel::test {

// Two NVIDIA GPUs as the scenario describes them, and a GPU NVML does not see.
// The Quadro at 65:00.0; the Tesla at 0002:b3:03.1, whose NVML section renames it.
extern const char* const quadro;
extern const char* const tesla;
extern const char* const radeon;

// A scenario of these GPUs with the given faults (a JSON object).
std::string scenario(const std::vector<std::string>& gpus, const std::string& faults = "{}");

// The path the library names when it reports NVML missing or unloadable, for a
// program-files folder (Windows) or by soname (Linux).
std::string nvmlPathUnder(const std::string& programFiles);

// This run's NVML module folder (KESTREL_NVML_FOLDER), empty when the run has none.
std::string nvmlFolder();

// Sets ProgramW6432 for this process; null removes it. Wine sets the variable
// itself when a process starts, so a test run cannot pass it in.
void setProgramFiles(const char* value);

// A record as text: its location, then every present property as name=value,
// in record order.
std::string describe(const libKestrel::IGPU& gpu);

// True when the journal holds 'first' and, somewhere after it, 'second'.
bool happenedInOrder(const std::vector<std::string>& journal, const std::string& first, const std::string& second);

// The names of the binding's kept entry points that are null, in name order.
std::vector<std::string> nullEntries();

// Checks that the binding holds no module and no entry point.
void expectNvmlReleased();

// Every NVML test starts with ProgramW6432 naming the run's module folder.
class NvmlTest : public testing::Test {
protected:
    void SetUp() override;
};

} // namespace kestrel::test
