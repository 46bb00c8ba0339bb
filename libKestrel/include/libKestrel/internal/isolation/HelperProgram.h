#pragma once

#include <filesystem>
#include <optional>

namespace libKestrel::isolation {

// Where the helper program kestrel-probe is: beside the module this code is in
// (the library, or a program that holds it whole), or in the libKestrel folder
// there (Linux installs it below the library folder).
struct HelperProgram {
    std::filesystem::path folder;                 // the module's folder
    std::optional<std::filesystem::path> program; // the helper in it, when there is one
};

// Found once, when the library is loaded: absolute and canonical, since the
// module's own name may be relative to the current folder of that moment (a
// library found through a relative search-path entry), which the host may
// change later.
const HelperProgram& helperProgram();

} // namespace libKestrel::isolation
