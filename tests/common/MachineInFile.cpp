#include "common/MachineInFile.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "common/Paths.h"
#include "common/Process.h"
#include "state/SimulatorState.h"

namespace kestrel::test {

MachineInFile MachineInFile::existing(const std::string& file)
{
    MachineInFile machine;
    machine.file_ = file;
    kestrelSimSetScenario(nullptr); // this process reads the file too
    setEnvironment("KESTREL_SIM_SCENARIO", file);
    return machine;
}

MachineInFile::MachineInFile(const std::string& json) : file_(temporaryPath("machine.json")), written_(true)
{
    change(json);
    kestrelSimSetScenario(nullptr);
    setEnvironment("KESTREL_SIM_SCENARIO", file_);
}

MachineInFile::MachineInFile(MachineInFile&& other) noexcept : file_(std::move(other.file_)), written_(other.written_)
{
    other.file_.clear();
    other.written_ = false;
}

MachineInFile::~MachineInFile()
{
    if (file_.empty())
        return;
    setEnvironment("KESTREL_SIM_SCENARIO", "");
    if (written_)
        std::remove(file_.c_str());
}

void MachineInFile::change(const std::string& json)
{
    // Written aside and moved in whole, so that a module never reads half of it.
    const std::string aside = file_ + ".new";
    std::ofstream(aside, std::ios::binary) << json;
    std::error_code ignored;
    std::filesystem::rename(std::filesystem::u8path(aside), std::filesystem::u8path(file_), ignored);
}

} // namespace kestrel::test
