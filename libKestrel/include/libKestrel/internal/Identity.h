#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <tuple>
#include <vector>

#include "libKestrel/IGPU.h"
#include "pci/PciLocation.h"

namespace libKestrel {

// Which GPU each record of a list is, by its PCI location, for the merge.
//
// A record with a known domain is the GPU at its location. A record whose source
// cannot tell the domain (NVAPI, ADL) is the one GPU of a known domain at its
// bus, device and function, and takes that domain; with none there, it is the
// GPU at its location without domain (records alike merge). With several there,
// in different domains, it could be any of them: it is left out, with a
// priority-3 line naming it and them, rather than lend its values to one at
// random or be counted as a GPU of its own. A record without location is left
// out too, with its own line.
class Identities {
public:
    // Learns which domains the records of 'gpus' know at each bus, device and function.
    explicit Identities(const std::vector<std::shared_ptr<IGPU>>& gpus);

    // The location of the GPU that 'gpu', a record of the list, is; nothing for
    // a record left out, which is logged.
    std::optional<pci::PciLocation> of(const IGPU* gpu) const;

private:
    using Slot = std::tuple<std::uint8_t, std::uint8_t, std::uint8_t>; // bus, device, function
    std::map<Slot, std::set<std::uint32_t>> knownDomains_;
};

} // namespace libKestrel
