#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

// What one sysfs file says, read through the bounded, non-blocking reader
// (SysfsFile.h). A file a driver does not offer is said at trace priority; a
// file that is there but says nothing usable is said at warning priority, and
// the value is absent either way.
namespace libKestrel::sysfs {

// The file's text, without its line end.
std::optional<std::string> readText(const std::filesystem::path& file);

// A file holding one non-negative decimal number.
std::optional<std::uint64_t> readNumber(const std::filesystem::path& file);

// That number divided by 'per' (a unit's scale: 1000 for m°C to °C, µW to mW,
// µJ to mJ), when it lies within [least, most]; a value outside is a driver's
// error.
std::optional<std::uint64_t> readWithin(const std::filesystem::path& file, std::uint64_t per, std::uint64_t least,
                                        std::uint64_t most);

// The PCIe generation of a link speed file ("16.0 GT/s PCIe", or without the
// suffix and the ".0" from older kernels): 2.5 GT/s is generation 1, 5 is 2,
// 8 is 3, 16 is 4, 32 is 5, 64 is 6, 128 is 7. A link whose speed the kernel
// does not know ("Unknown") has none.
std::optional<std::uint64_t> readLinkGeneration(const std::filesystem::path& file);

} // namespace libKestrel::sysfs
