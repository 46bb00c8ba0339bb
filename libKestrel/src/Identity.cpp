#include "libKestrel/internal/Identity.h"

#include <string>

#include "libKestrel/internal/Logging.h"

namespace libKestrel {
namespace {

using logging::log;
using logging::Priority;

// The merge's logger, whose lines these are.
logging::LogSite site("libKestrel.Kestrel", "libKestrel/src/Identity.cpp");

std::string listed(const std::set<std::uint32_t>& domains, const pci::PciLocation& location)
{
    std::string text;
    for (const std::uint32_t domain : domains) {
        text += text.empty() ? "" : ", ";
        text += pci::PciLocation(location.bus, location.device, location.function, domain).toString(true).str();
    }
    return text;
}

} // namespace

Identities::Identities(const std::vector<std::shared_ptr<IGPU>>& gpus)
{
    for (const auto& gpu : gpus)
        if (const auto location = gpu ? gpu->pciLocation() : std::nullopt; location && location->domainKnown)
            knownDomains_[{location->bus, location->device, location->function}].insert(location->domain);
}

std::optional<pci::PciLocation> Identities::of(const IGPU* gpu) const
{
    // A null record from a host's source has no location either.
    auto location = gpu ? gpu->pciLocation() : std::nullopt;
    if (!location) {
        log(site, Priority::WARNING, "294 ", "Could not obtain PCI Location from GPU");
        return std::nullopt;
    }
    if (location->domainKnown)
        return location;
    const auto known = knownDomains_.find({location->bus, location->device, location->function});
    if (known == knownDomains_.end())
        return location;
    if (known->second.size() == 1)
        return pci::PciLocation(location->bus, location->device, location->function, *known->second.begin());
    log(site, Priority::WARNING, "295 ", "GPU record without PCI domain fits several GPUs and is left out: ",
        logging::deferred([&known, &location] {
            return location->toString(false).str() + " could be " + listed(known->second, *location);
        }));
    return std::nullopt;
}

} // namespace libKestrel
