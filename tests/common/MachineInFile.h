#pragma once

#include <string>

namespace kestrel::test {

// A simulated machine in a scenario file, for this process and the helper
// processes it starts alike: KESTREL_SIM_SCENARIO names the file while this
// lives, and no scenario text is set in this process.
class MachineInFile {
public:
    // An example machine's file, used as it is.
    static MachineInFile existing(const std::string& file);
    // A machine (JSON text) in a temporary file, which goes with this.
    explicit MachineInFile(const std::string& json);
    ~MachineInFile();
    MachineInFile(const MachineInFile&) = delete;
    MachineInFile& operator=(const MachineInFile&) = delete;
    MachineInFile(MachineInFile&& other) noexcept;
    MachineInFile& operator=(MachineInFile&&) = delete;

    // Writes another machine (JSON text) to the file, which the simulated
    // modules of every process follow.
    void change(const std::string& json);
    // The file's path.
    const std::string& path() const { return file_; }

private:
    MachineInFile() = default;
    std::string file_;
    bool written_ = false; // the file is ours to remove
};

} // namespace kestrel::test
