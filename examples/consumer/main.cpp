// Builds one record through the public headers and prints it: proof that the
// installed package carries everything a host needs to compile and link.
#include <cstdio>
#include <memory>
#include <vector>

#include <libKestrel/libKestrel.h>

int main()
{
    auto gpu = std::make_shared<libKestrel::GPU>(pci::PciLocation(0x65, 0, 0, 0));
    gpu->setName(std::string("Example GPU"));
    std::shared_ptr<libKestrel::IGPU> record = gpu;
    std::printf("%s at %s\n", record->name().value_or("?").c_str(), record->pciLocation()->toString(true).c_str());

    // The exported device classes link too. Holding an initializer keeps NVAPI up
    // while the GPUs are asked; without NVIDIA's driver there is nothing to list.
    const libKestrel::NVIDIAGPU::NvAPIInitializer nvapi;
    std::vector<libKestrel::NVIDIAGPU> nvidia;
    const auto found = static_cast<unsigned long>(libKestrel::NVIDIAGPU::enumerate(nvidia));
    std::printf("%lu NVIDIA GPUs through NVAPI\n", found);
    return record->isSameGPU(libKestrel::GPU(pci::PciLocation(0x65, 0, 0, 0))) ? 0 : 1;
}
