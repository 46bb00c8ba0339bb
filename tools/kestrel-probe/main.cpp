// kestrel-probe: runs one of the library's GPU sources and writes its records,
// its status bits and its log lines to standard output, for a host that keeps
// vendor libraries out of its own process (queryAllGPUsIsolated). The format is
// described in libKestrel/internal/isolation/ProbeFormat.h.
#include <cstdio>
#include <cstring>
#include <string>

#include "libKestrel/internal/SourceTable.h"
#include "libKestrel/internal/isolation/ProbeFormat.h"
#include "tova/LogFactory.h"

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#endif

namespace {

int usage(const char* problem)
{
    std::fprintf(stderr, "kestrel-probe: %s\nusage: kestrel-probe SOURCE [--log-level N]   (SOURCE:", problem);
    for (const auto* source = libKestrel::ownSourcesBegin(); source != libKestrel::ownSourcesEnd(); ++source)
        std::fprintf(stderr, " %s", source->name);
    std::fprintf(stderr, ")\n");
    return 2;
}

void write(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

} // namespace

int main(int argc, char** argv)
{
#if defined(_WIN32)
    _setmode(_fileno(stdout), _O_BINARY); // the lines end as written
#endif
    if (argc != 2 && argc != 4)
        return usage("expected a source, and optionally --log-level N");
    const libKestrel::OwnSource* source = libKestrel::findOwnSource(argv[1]);
    if (!source)
        return usage((std::string("unknown source '") + argv[1] + "'").c_str());
    int level = tova::LoggerPriority::CRITICAL;
    if (argc == 4) {
        char* end = nullptr;
        level = static_cast<int>(std::strtol(argv[3], &end, 10));
        if (std::strcmp(argv[2], "--log-level") != 0 || *end != '\0' || level < tova::LoggerPriority::ALL ||
            level > tova::LoggerPriority::OFF)
            return usage("--log-level takes a priority from 0 to 5");
    }
    tova::LogFactory::setPriority(static_cast<tova::LoggerPriority::LOGGER_PRIORITY>(level));
    tova::LogFactory::setSink([](const std::string& logger, tova::LoggerPriority::LOGGER_PRIORITY priority,
                                 const std::string& text) { write(libKestrel::probe::logLine(logger, priority, text)); });
    write(libKestrel::probe::header());
    std::bitset<4> status;
    const auto records = source->query(status);
    write(libKestrel::probe::records(records, status));
    std::fflush(stdout);
    return 0;
}
