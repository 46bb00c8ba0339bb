#include "common/Records.h"
#include "common/Test.h"
#include "libKestrel/GPU.h"

namespace {

using libKestrel::GPU;

TEST(GPURecord, IsSameGPUComparesLocationsAsOptionals)
{
    const GPU gpu(pci::PciLocation(1, 2, 3, 4));
    EXPECT_TRUE(gpu.isSameGPU(GPU(pci::PciLocation(1, 2, 3, 4))));
    EXPECT_FALSE(gpu.isSameGPU(GPU(pci::PciLocation(9, 2, 3, 4))));
    EXPECT_FALSE(gpu.isSameGPU(GPU(pci::PciLocation(1, 9, 3, 4))));
    EXPECT_FALSE(gpu.isSameGPU(GPU(pci::PciLocation(1, 2, 9, 4))));
    EXPECT_FALSE(gpu.isSameGPU(GPU(pci::PciLocation(1, 2, 3, 9))));

    // A location without domain fits that bus, device and function in any domain.
    const GPU withoutDomain(pci::PciLocation::withoutDomain(1, 2, 3));
    EXPECT_TRUE(gpu.isSameGPU(withoutDomain));
    EXPECT_TRUE(withoutDomain.isSameGPU(GPU(pci::PciLocation(1, 2, 3, 0x10000))));
    EXPECT_FALSE(withoutDomain.isSameGPU(GPU(pci::PciLocation(1, 2, 9, 4))));

    const kestrel::test::UnlocatedGPU unlocated;
    EXPECT_FALSE(gpu.isSameGPU(unlocated));
    EXPECT_FALSE(unlocated.isSameGPU(gpu));
    EXPECT_TRUE(unlocated.isSameGPU(kestrel::test::UnlocatedGPU()));
}

} // namespace
