#include <memory>

#include <gtest/gtest.h>

#include "common/Records.h"
#include "libKestrel/GPU.h"

namespace {

using libKestrel::GPU;
using libKestrel::IGPU;

TEST(GPURecord, StartsWithOnlyItsLocationAndSettersReplaceOrClear)
{
    const pci::PciLocation location(0x65, 0, 0, 0);
    std::shared_ptr<IGPU> record = std::make_shared<GPU>(location);
    ASSERT_TRUE(record->pciLocation().has_value());
    EXPECT_EQ(*record->pciLocation(), location);
#define EXPECT_EMPTY(type, getter, setter, unit) EXPECT_FALSE(record->getter().has_value()) << #getter;
    LIBKESTREL_GPU_PROPERTIES(EXPECT_EMPTY)
#undef EXPECT_EMPTY

    auto& gpu = static_cast<GPU&>(*record);
    gpu.setName(std::string("GeForce RTX 3080"));
    gpu.setTemperatureCurrent(std::uint64_t{54});
    EXPECT_EQ(record->name(), "GeForce RTX 3080");
    EXPECT_EQ(record->temperatureCurrent(), 54u);
    gpu.setName(std::string("TITAN"));
    EXPECT_EQ(record->name(), "TITAN");
    gpu.setName(std::nullopt);
    EXPECT_FALSE(record->name().has_value()) << "an empty optional clears the property";
    EXPECT_EQ(record->temperatureCurrent(), 54u) << "other properties are untouched";

    // Empty, false and true are three different answers.
    gpu.setHardwareAcceleration(false);
    EXPECT_TRUE(record->hardwareAcceleration().has_value());
    EXPECT_FALSE(*record->hardwareAcceleration());
    gpu.setHardwareAcceleration(true);
    EXPECT_TRUE(*record->hardwareAcceleration());
}

TEST(GPURecord, IsSameGPUComparesLocationsAsOptionals)
{
    const GPU gpu(pci::PciLocation(1, 2, 3, 4));
    EXPECT_TRUE(gpu.isSameGPU(GPU(pci::PciLocation(1, 2, 3, 4))));
    EXPECT_FALSE(gpu.isSameGPU(GPU(pci::PciLocation(9, 2, 3, 4))));
    EXPECT_FALSE(gpu.isSameGPU(GPU(pci::PciLocation(1, 9, 3, 4))));
    EXPECT_FALSE(gpu.isSameGPU(GPU(pci::PciLocation(1, 2, 9, 4))));
    EXPECT_FALSE(gpu.isSameGPU(GPU(pci::PciLocation(1, 2, 3, 9))));

    const kestrel::test::UnlocatedGPU unlocated;
    EXPECT_FALSE(gpu.isSameGPU(unlocated));
    EXPECT_FALSE(unlocated.isSameGPU(gpu));
    EXPECT_TRUE(unlocated.isSameGPU(kestrel::test::UnlocatedGPU()));
}

} // namespace
