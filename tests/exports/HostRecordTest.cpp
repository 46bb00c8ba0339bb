// A host's own record class, written for libKestrel 0.1 as a host writes one:
// every getter of 0.1's list declared through LIBKESTREL_GPU_PROPERTIES. It
// still compiles and links against the shared library; the properties added
// since read as absent, and the library merges it with its own records.
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "common/Test.h"
#include "libKestrel/GPU.h"
#include "libKestrel/Session.h"

namespace {

class HostRecord : public libKestrel::IGPU {
public:
    bool isSameGPU(const IGPU& other) const override { return pciLocation() == other.pciLocation(); }
    std::optional<pci::PciLocation> pciLocation() const override { return pci::PciLocation(0x42, 0, 0, 0); }

#define HOST_GETTER(type, getter, setter, unit)                                                                        \
    std::optional<type> getter() const override { return known<type>(#getter); }
    LIBKESTREL_GPU_PROPERTIES(HOST_GETTER)
#undef HOST_GETTER

private:
    // The host knows its GPU's name and core count, nothing else.
    template <class T>
    static std::optional<T> known(const std::string& getter)
    {
        if constexpr (std::is_same_v<T, std::string>)
            return getter == "name" ? std::optional<T>("Host's GPU") : std::nullopt;
        else if constexpr (std::is_same_v<T, std::uint32_t>)
            return getter == "coreCount" ? std::optional<T>(2048) : std::nullopt;
        else
            return std::nullopt;
    }
};

std::vector<std::shared_ptr<libKestrel::IGPU>> hostSource(std::bitset<4>&)
{
    return {std::make_shared<HostRecord>()};
}

// The library's own record of the same GPU, with a reading added since 0.1.
std::vector<std::shared_ptr<libKestrel::IGPU>> drawingSource(std::bitset<4>&)
{
    auto gpu = std::make_shared<libKestrel::GPU>(pci::PciLocation(0x42, 0, 0, 0));
    gpu->setPowerDraw(std::uint32_t{75000});
    return {gpu};
}

TEST(HostRecordOfAnEarlierRelease, CompilesReadsNewPropertiesAsAbsentAndMerges)
{
    const HostRecord record;
    EXPECT_EQ(record.name(), "Host's GPU");
    EXPECT_FALSE(record.powerDraw().has_value());
    EXPECT_FALSE(record.clockEventReasons().has_value());

    libKestrel::Session session({hostSource, drawingSource});
    const auto gpus = session.gpus();
    ASSERT_EQ(gpus.size(), 1u);
    EXPECT_EQ(gpus[0]->name(), "Host's GPU");
    EXPECT_EQ(gpus[0]->coreCount(), 2048u);
    EXPECT_EQ(gpus[0]->powerDraw(), 75000u);
    EXPECT_FALSE(gpus[0]->temperatureHotspot().has_value());
}

} // namespace
