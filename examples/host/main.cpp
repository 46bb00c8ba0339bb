// A host application's use of libKestrel: every GPU of the machine, from every
// vendor interface that is installed, merged into one record per GPU.
#include <bitset>
#include <cstdio>
#include <memory>
#include <vector>

#include <libKestrel/libKestrel.h>
#include <tova/LogFactory.h>

namespace {

using Records = std::vector<std::shared_ptr<libKestrel::IGPU>>;

int monitorsSeen = 0;

// Called once per attached monitor with a hidden window placed on it. A real host
// asks its windowing system which GPU owns that window (on Windows: the adapter
// of MonitorFromWindow, and from it the PCI location), and returns a record for
// that location with setNativeMonitorHandle(monitor), which the merge attaches
// to the GPU's record. This one only counts the monitors.
Records monitorSource(void* const& window, void* const& monitor)
{
    ++monitorsSeen;
    std::printf("monitor %d: probe window %p on monitor %p\n", monitorsSeen, window, monitor);
    return {};
}

} // namespace

int main()
{
    // Only the gravest failures on standard error.
    tova::LogFactory::setPriority(tova::LoggerPriority::CRITICAL);

    std::bitset<4> status;
    const Records gpus = libKestrel::queryAllGPUs(
        {monitorSource},
        {libKestrel::queryNVidiaNvmlGPUsMulti, libKestrel::queryNVidiaGPUs, libKestrel::queryNVidiaCudaGPUsMulti,
         libKestrel::queryAMDGPUsMulti},
        status);

    std::printf("%zu GPU(s)\n", gpus.size());
    for (const auto& gpu : gpus) {
        const auto location = gpu->pciLocation();
        std::printf("%s  %s", location ? location->toString(true).c_str() : "?", gpu->name().value_or("?").c_str());
        if (const auto temperature = gpu->temperatureCurrent())
            std::printf(", %llu C", static_cast<unsigned long long>(*temperature));
        if (const auto memory = gpu->dedicatedMemory())
            std::printf(", %llu MB", static_cast<unsigned long long>(*memory / 1024));
        std::printf("\n");
    }
    if (status.test(0))
        std::printf("NVML refused a GPU that lacks power.\n");
    return 0;
}
