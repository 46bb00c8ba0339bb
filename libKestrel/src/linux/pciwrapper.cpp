#include "libKestrel/internal/linux/pciwrapper.h"

#include <algorithm>
#include <atomic>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <tuple>
#include <type_traits>

#include <pci/pci.h>

#include "libKestrel/internal/Assert.h"
#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/Lookup.h"
#include "libKestrel/internal/ScopeExit.h"
#include "libKestrel/internal/linux/SysfsFile.h"
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
    decltype(&pci_get_dev) getDev = nullptr;
    decltype(&pci_free_dev) freeDev = nullptr;
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
    visit("pci_get_dev", &f.getDev);
    visit("pci_free_dev", &f.freeDev);
    visit("pci_fill_info", &f.fillInfo);
    visit("pci_lookup_name", &f.lookupName);
    visit("pci_set_param", &f.setParam);
}

constexpr unsigned int displayClass = 0x03;

std::atomic<void (*)(const std::string&)> afterListing{nullptr};

// libpci reports an error through a callback that must not return (its own
// stops the process). Ours jumps back to the guarded() call that is running on
// this thread, with libpci's text in 'failure'.
thread_local std::jmp_buf* escape = nullptr;
thread_local char failure[256];

__attribute__((noreturn)) void onError(char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(failure, sizeof failure, format, arguments);
    va_end(arguments);
    // Every libpci call runs in guarded(): without one there is nowhere to go back to.
    KESTREL_ASSERT(escape);
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

// Runs 'call', which calls libpci; false when libpci reported an error. The jump
// back leaves libpci's C frames, onError's and 'call''s own, so neither 'call'
// nor anything it holds while libpci runs may have a destructor: the jump would
// skip it. Never inlined, so the frame that calls setjmp holds nothing else.
template <class Call>
[[gnu::noinline]] bool guarded(const Call& call)
{
    static_assert(std::is_trivially_destructible_v<Call>, "the jump out of libpci skips destructors");
    std::jmp_buf here;
    escape = &here;
    if (setjmp(here) != 0) {
        escape = nullptr;
        return false;
    }
    call();
    escape = nullptr;
    return true;
}

// A device folder as the kernel names it, "<domain>:<bus>:<device>.<function>".
struct Address {
    std::string name;
    unsigned int domain = 0, bus = 0, device = 0, function = 0;
};

// The devices under 'devices', or the first entry libpci could not read: a name
// that is no PCI address (or one libpci would cut to another device's), or an
// identity file that is no readable regular file. libpci opens those files with
// blocking calls, so a FIFO would hang it; nothing here opens them.
std::optional<std::string> listDevices(const std::filesystem::path& devices, std::vector<Address>& found)
{
    std::error_code error;
    std::filesystem::directory_iterator entry(devices, error), end;
    for (; !error && entry != end; entry.increment(error)) {
        Address address{entry->path().filename().u8string()};
        char rest = 0;
        if (std::sscanf(address.name.c_str(), "%x:%x:%x.%u%c", &address.domain, &address.bus, &address.device,
                        &address.function, &rest) != 4 ||
            address.domain > 0x7FFFFFFF || address.bus > 0xFF || address.device > 0xFF || address.function > 0xFF)
            return address.name;
        for (const char* file : {"vendor", "device", "class"})
            if (sysfs::probeAttribute((entry->path() / file).native()) != sysfs::Attribute::Regular)
                return address.name + "/" + file;
        found.push_back(std::move(address));
    }
    if (error)
        return devices.u8string();
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

void setAfterListing(void (*hook)(const std::string& devices)) { afterListing = hook; }

std::vector<PciDevice> displayControllers(const std::string& sysfsRoot)
{
    auto trace = site.trace("displayControllers", 120);
    const PciFunctions* loaded = libpci();
    if (!loaded)
        return {};
    const PciFunctions& f = *loaded;
    const std::string busPath = sysfsRoot + "/bus/pci";
    // Listed here, not by libpci's scan, which leaves the folder open when it
    // reports an error: nothing its caller can reach would close it.
    std::vector<Address> addresses;
    if (const auto entry = listDevices(std::filesystem::u8path(busPath + "/devices"), addresses)) {
        log(site, Priority::WARNING, "135 ", "Cannot enumerate the PCI devices, unreadable: ", *entry);
        return {};
    }
    if (const auto hook = afterListing.load())
        hook(busPath + "/devices");

    // Reading a device, libpci closes each file before it reports an error about
    // it; what it keeps open (a config file, the names database) hangs on the
    // access or the device, so freeing those releases it after an error too.
    // pci_alloc fails only when memory runs out, through libpci's own handler:
    // there is no access yet to give ours to.
    pci_access* access = f.alloc();
    const ScopeExit release([&f, access] {
        if (!guarded([&f, access] { f.cleanup(access); }))
            log(site, Priority::WARNING, "148 ", "libpci failed: ", static_cast<const char*>(failure));
    });
    access->method = PCI_ACCESS_SYS_BUS_PCI;
    access->error = onError;
    access->warning = onWarning;
    char pathParameter[] = "sysfs.path";
    std::string pathValue = busPath;
    if (!guarded([&] {
            f.setParam(access, pathParameter, pathValue.data());
            f.init(access);
        })) {
        log(site, Priority::WARNING, "148 ", "libpci failed: ", static_cast<const char*>(failure));
        return {};
    }

    std::vector<PciDevice> found;
    for (const Address& address : addresses) {
        pci_dev* device = nullptr;
        const ScopeExit freeDevice([&f, &device] {
            if (device)
                f.freeDev(device);
        });
        // A device unplugged since the listing, or a file libpci refuses, costs
        // that device alone.
        if (!guarded([&] {
                device = f.getDev(access, static_cast<int>(address.domain), static_cast<int>(address.bus),
                                  static_cast<int>(address.device), static_cast<int>(address.function));
                f.fillInfo(device, PCI_FILL_IDENT | PCI_FILL_CLASS);
            })) {
            log(site, Priority::WARNING, "149 ", "libpci cannot read ", address.name, ", skipped: ",
                static_cast<const char*>(failure));
            continue;
        }
        if ((device->device_class >> 8) != displayClass)
            continue;
        PciDevice controller{device->domain, device->bus, device->dev, device->func,
                             device->vendor_id, device->device_id, std::nullopt};
        char name[512];
        const char* known = nullptr;
        if (!guarded([&] {
                known = f.lookupName(access, name, sizeof name,
                                     PCI_LOOKUP_VENDOR | PCI_LOOKUP_DEVICE | PCI_LOOKUP_NO_NUMBERS,
                                     device->vendor_id, device->device_id);
            }))
            log(site, Priority::WARNING, "150 ", "libpci cannot name ", address.name, ": ",
                static_cast<const char*>(failure));
        if (known)
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
