#include "libKestrel/internal/linux/SysfsFile.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "libKestrel/internal/ScopeExit.h"

namespace libKestrel::sysfs {
namespace {

Attribute kindOf(const struct stat& status)
{
    if (S_ISREG(status.st_mode))
        return Attribute::Regular;
    return S_ISDIR(status.st_mode) ? Attribute::Folder : Attribute::Special;
}

// Through a link, as the kernel's own trees link devices to their folders.
Attribute statusOf(const std::string& path)
{
    struct stat status {};
    if (stat(path.c_str(), &status) == 0)
        return kindOf(status);
    return errno == ENOENT || errno == ENOTDIR ? Attribute::Missing : Attribute::Unreadable;
}

} // namespace

Attribute probeAttribute(const std::string& path)
{
    const Attribute kind = statusOf(path);
    if (kind == Attribute::Regular && access(path.c_str(), R_OK) != 0)
        return Attribute::Unreadable;
    return kind;
}

Attribute readAttribute(const std::string& path, std::size_t mostBytes, std::string& text)
{
    // The status first, so that a device node is never opened.
    if (const Attribute kind = statusOf(path); kind != Attribute::Regular)
        return kind;
    const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (file < 0)
        return errno == ENOENT ? Attribute::Missing : Attribute::Unreadable;
    const ScopeExit closeFile([file] { close(file); });
    struct stat status {};
    if (fstat(file, &status) != 0)
        return Attribute::Unreadable;
    if (const Attribute kind = kindOf(status); kind != Attribute::Regular)
        return kind;

    // One byte beyond the most allowed tells a full value from a longer one.
    text.assign(mostBytes + 1, '\0');
    std::size_t filled = 0;
    while (filled < text.size()) {
        const ssize_t got = read(file, text.data() + filled, text.size() - filled);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return Attribute::Unreadable;
        if (got == 0)
            break;
        filled += static_cast<std::size_t>(got);
    }
    if (filled > mostBytes)
        return Attribute::TooLong;
    text.resize(filled);
    return Attribute::Regular;
}

} // namespace libKestrel::sysfs
