#include "libKestrel/internal/isolation/ProbeSession.h"

#include <optional>
#include <sstream>
#include <vector>

#include "libKestrel/internal/LiveSource.h"
#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/isolation/ProbeFormat.h"

namespace libKestrel::probe {
namespace {

// The source as enumerated: its records, and for a source read through handles
// (all but CUDA, whose properties do not change) what reads them again.
struct Enumerated {
    std::vector<std::shared_ptr<IGPU>> records;
    std::optional<LiveSource> live;
};

Enumerated enumerate(const OwnSource& source, std::bitset<4>& status)
{
    Enumerated enumerated;
    if (!source.live) {
        enumerated.records = source.query(status);
        return enumerated;
    }
    enumerated.live = source.live(status);
    for (const LiveGPU& gpu : enumerated.live->gpus)
        enumerated.records.push_back(gpu.record);
    return enumerated;
}

std::string enumerationAnswer(const Enumerated& enumerated, const std::bitset<4>& status)
{
    std::vector<bool> read;
    if (enumerated.live)
        for (const LiveGPU& gpu : enumerated.live->gpus)
            read.push_back(static_cast<bool>(gpu.read));
    return enumeration(enumerated.records, read, enumerated.live && enumerated.live->vendor, status);
}

// Reads every GPU with a reader again, as a session in the host's process does.
std::string refreshAnswer(const Enumerated& enumerated, const std::string& quiet)
{
    if (!enumerated.live)
        return readings(true, {});
    const LiveSource& live = *enumerated.live;
    std::vector<GPU> values;
    values.reserve(live.gpus.size());
    for (const LiveGPU& gpu : live.gpus)
        values.emplace_back(*gpu.record->pciLocation());
    const bool reached = live.around && live.around([&] {
        for (std::size_t i = 0; i < live.gpus.size(); ++i) {
            if (!live.gpus[i].read)
                continue;
            std::optional<logging::QuietScope> held;
            if (i < quiet.size() && quiet[i] == '1')
                held.emplace();
            live.gpus[i].read(values[i]);
        }
    });
    std::vector<std::pair<std::size_t, const IGPU*>> read;
    for (std::size_t i = 0; reached && i < live.gpus.size(); ++i)
        if (live.gpus[i].read)
            read.emplace_back(i, &values[i]);
    return readings(reached, read);
}

} // namespace

void serveSession(const OwnSource& source, const std::function<bool(std::string&)>& next,
                  const std::function<void(const std::string&)>& answer)
{
    std::optional<Enumerated> current;
    for (std::string request; next(request);) {
        std::istringstream fields(request);
        std::string word;
        int level = tova::LoggerPriority::CRITICAL;
        fields >> word >> level;
        if (level >= tova::LoggerPriority::ALL && level <= tova::LoggerPriority::OFF)
            tova::LogFactory::setPriority(static_cast<tova::LoggerPriority::LOGGER_PRIORITY>(level));
        // First, so that the lines the source logs meanwhile follow it.
        answer(header());
        if (word == "rescan") {
            std::bitset<4> status;
            Enumerated fresh = enumerate(source, status);
            answer(enumerationAnswer(fresh, status));
            current = std::move(fresh); // the enumeration before is let go after the new one is made
        } else if (word == "refresh") {
            std::string quiet;
            fields >> quiet;
            answer(current ? refreshAnswer(*current, quiet) : readings(false, {}));
        }
    }
}

} // namespace libKestrel::probe
