#include "libKestrel/internal/linux/pciwrapper.h"

#include <algorithm>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <tuple>

#include <pci/pci.h>

#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/Lookup.h"
#include "libKestrel/internal/ScopeExit.h"
#include "tova/DynamicLibrary.h"

namespace libKestrel::pci_library {
namespace {

using logging::log;
using logging::Priority;

logging::LogSite site("libKestrel.PCI", "libKestrel/src/linux/pciwrapper.cpp");

// libpci's entry points, typed from its own declarations.
struct PciFunctions {
    decltype(&pci_alloc) alloc = nullptr;
    decltype(&pci_init) init = nullptr;
    decltype(&pci_cleanup) cleanup = nullptr;
    decltype(&pci_scan_bus) scanBus = nullptr;
    decltype(&pci_fill_info) fillInfo = nullptr;
    decltype(&pci_lookup_name) lookupName = nullptr;
    decltype(&pci_set_param) setParam = nullptr;
};

template <class Visit>
void listEntries(PciFunctions& f, Visit visit)
{
    visit("pci_alloc", &f.alloc);
    visit("pci_init", &f.init);
    visit("pci_cleanup", &f.cleanup);
    visit("pci_scan_bus", &f.scanBus);
    visit("pci_fill_info", &f.fillInfo);
    visit("pci_lookup_name", &f.lookupName);
    visit("pci_set_param", &f.setParam);
}

constexpr unsigned int displayClass = 0x03;

// libpci reports a fatal error through a callback that must not return. The
// tree is checked before libpci sees it, so this is a last resort: it jumps back
// out of libpci to the scan, over C frames only.
thread_local std::jmp_buf* escape = nullptr;
thread_local char failure[256];

__attribute__((noreturn)) void onError(char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(failure, sizeof failure, format, arguments);
    va_end(arguments);
    std::longjmp(*escape, 1);
}

void onWarning(char* format, ...)
{
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    log(site, Priority::INFO, "71 ", "libpci: ", text);
}

// Holds no object with a destructor: the jump may leave it.
bool scan(const PciFunctions& f, pci_access* access)
{
    std::jmp_buf here;
    escape = &here;
    if (setjmp(here) != 0) {
        escape = nullptr;
        return false;
    }
    f.init(access);
    f.scanBus(access);
    escape = nullptr;
    return true;
}

// libpci stops the process on an entry whose name is no PCI address or which
// lacks its identity files: such a tree is refused before it gets there.
std::optional<std::string> unreadableEntry(const std::filesystem::path& devices)
{
    std::error_code error;
    std::filesystem::directory_iterator entries(devices, error);
    if (error)
        return devices.u8string();
    for (const auto& entry : entries) {
        const std::string name = entry.path().filename().u8string();
        unsigned int domain = 0, bus = 0, device = 0, function = 0;
        char end = 0;
        if (std::sscanf(name.c_str(), "%x:%x:%x.%u%c", &domain, &bus, &device, &function, &end) != 4)
            return name;
        for (const char* file : {"vendor", "device", "class"})
            if (!std::ifstream(entry.path() / file))
                return name + "/" + file;
    }
    return std::nullopt;
}

// libpci, loaded on first use and kept: it starts helpers of its own (the udev
// hardware database) that would be left behind by every unload. Null, logged,
// while it is missing or incomplete; looked for again on the next call.
const PciFunctions* libpci()
{
    struct Kept {
        tova::DynamicLibrary library;
        PciFunctions functions;
    };
    static std::mutex loading;
    static Kept* kept = nullptr; // never deleted: the library stays mapped
    const std::lock_guard<std::mutex> lock(loading);
    if (kept)
        return &kept->functions;
    auto candidate = std::make_unique<Kept>(Kept{tova::DynamicLibrary(tova::String("libpci.so.3")), {}});
    if (!candidate->library.load()) {
        log(site, Priority::WARNING, "124 ", "Cannot load libpci: ", candidate->library.lastError().str());
        return nullptr;
    }
    PciFunctions& f = candidate->functions;
    resolveEntries(candidate->library, [&f](auto visit) { listEntries(f, visit); });
    if (const char* missing = firstMissingEntry([&f](auto visit) { listEntries(f, visit); })) {
        log(site, Priority::WARNING, "130 ", "libpci lacks the entry point ", missing);
        return nullptr;
    }
    kept = candidate.release();
    return &kept->functions;
}

} // namespace

std::vector<PciDevice> displayControllers(const std::string& sysfsRoot)
{
    auto trace = site.trace("displayControllers", 120);
    const PciFunctions* loaded = libpci();
    if (!loaded)
        return {};
    const PciFunctions& f = *loaded;
    const std::string busPath = sysfsRoot + "/bus/pci";
    if (const auto entry = unreadableEntry(std::filesystem::u8path(busPath + "/devices"))) {
        log(site, Priority::WARNING, "135 ", "Cannot enumerate the PCI devices, unreadable: ", *entry);
        return {};
    }

    pci_access* access = f.alloc();
    ScopeExit release([&f, access] { f.cleanup(access); });
    access->method = PCI_ACCESS_SYS_BUS_PCI;
    access->error = onError;
    access->warning = onWarning;
    std::string pathParameter = "sysfs.path";
    std::string pathValue = busPath;
    f.setParam(access, pathParameter.data(), pathValue.data());
    if (!scan(f, access)) {
        log(site, Priority::WARNING, "148 ", "libpci failed: ", static_cast<const char*>(failure));
        return {};
    }

    std::vector<PciDevice> found;
    for (pci_dev* device = access->devices; device; device = device->next) {
        f.fillInfo(device, PCI_FILL_IDENT | PCI_FILL_CLASS);
        if ((device->device_class >> 8) != displayClass)
            continue;
        PciDevice controller{device->domain, device->bus, device->dev, device->func,
                             device->vendor_id, device->device_id, std::nullopt};
        char name[512];
        if (const char* known = f.lookupName(access, name, sizeof name,
                                             PCI_LOOKUP_VENDOR | PCI_LOOKUP_DEVICE | PCI_LOOKUP_NO_NUMBERS,
                                             device->vendor_id, device->device_id))
            controller.name = known;
        found.push_back(controller);
    }
    // In bus order, whatever order the directory listed them in.
    std::sort(found.begin(), found.end(), [](const PciDevice& a, const PciDevice& b) {
        return std::tie(a.domain, a.bus, a.device, a.function) < std::tie(b.domain, b.bus, b.device, b.function);
    });
    return found;
}

} // namespace libKestrel::pci_library
