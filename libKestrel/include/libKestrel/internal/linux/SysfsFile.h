#pragma once

#include <cstddef>
#include <string>

namespace libKestrel::sysfs {

// What a sysfs attribute turned out to be. The kernel publishes attributes as
// regular files; anything else in their place (a folder, a FIFO, a device node)
// is a tree that is not the kernel's, and must not be opened for reading.
enum class Attribute {
    Regular,    // a regular file, readable (and, from readAttribute, read)
    Missing,    // nothing at that path: what a driver does not offer
    Folder,     // a folder in the file's place
    Special,    // a FIFO, socket or device node
    Unreadable, // refused (permissions) or failed while reading
    TooLong,    // more bytes than the caller allows
};

// What 'path' is, from its status and permissions alone: nothing is opened, so
// no FIFO can block and no device node is touched.
Attribute probeAttribute(const std::string& path);

// At most 'mostBytes' bytes of the regular file at 'path', into 'text'. Opened
// without blocking and checked again once open (the tree may change in between);
// a file with more bytes than that is TooLong, not cut. Real attributes report
// a size of a page whatever they hold, so the read is bounded, not the size.
Attribute readAttribute(const std::string& path, std::size_t mostBytes, std::string& text);

} // namespace libKestrel::sysfs
