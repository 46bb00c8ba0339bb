// AMDGPU: how ADL's adapters become GPUs, the identity questions and CrossFire.
#include <string>
#include <utility>
#include <vector>

#include "amd/AmdTesting.h"

namespace {

using namespace kestrel::test::amd;

using Names = std::vector<std::string>;

// An adapter at <bus>:00.0 with a display name, for a GPU section of its own.
json adapter(int bus, const std::string& display, json more = json::object())
{
    more["pci"] = {{"bus", bus}, {"device", 0}, {"function", 0}};
    more["displayName"] = display;
    return more;
}

// One "gpus" entry holding every adapter, in ADL's order: adapters name their
// own location, so one entry can interleave several GPUs.
std::string adapters(const std::vector<json>& list, const json& faults = json::object())
{
    return scenario({gpuAt(1, {{"adapters", list}})}, faults);
}

TEST(AmdEnumeration, AdaptersFoldIntoGPUsByLocationAndTheFoldEndsAtTheFirstRepeat)
{
    {
        // One GPU seen as four adapters: the second joins the first, and the
        // walk ends there.
        SimulatedMachine machine(scenario({gpuAt(1, json::parse(R"({
            "adapters": [{"index": 3, "displayName": "D3"}, {"index": 4, "displayName": "D4"},
                         {"index": 5, "displayName": "D5"}, {"index": 6, "displayName": "D6"}],
            "overdrive5": {"activity": {"percent": 40}}})"))}));
        std::vector<AMDGPU> gpus;
        ASSERT_EQ(AMDGPU::enumerate(gpus), 1u);
        EXPECT_EQ(gpus[0].pciLocation(), at(1));
        EXPECT_EQ(gpus[0].displayIds(), (Names{"D3", "D4"}));
        std::vector<int> usage;
        gpus[0].currentGPUUsage(usage);
        EXPECT_EQ(usage, (std::vector<int>{40, 40})) << "one reading per adapter of the GPU";
    }
    {
        // [A, B, A', B']: A' joins A and ends the walk; B keeps one adapter.
        SimulatedMachine machine(adapters({adapter(3, "A1"), adapter(4, "B1"), adapter(3, "A2"), adapter(4, "B2")}));
        {
            const std::vector<AMDGPU> gpus = enumerated();
            ASSERT_EQ(gpus.size(), 2u);
            EXPECT_EQ(gpus[0].pciLocation(), at(3));
            EXPECT_EQ(gpus[0].displayIds(), (Names{"A1", "A2"}));
            EXPECT_EQ(gpus[1].pciLocation(), at(4));
            EXPECT_EQ(gpus[1].displayIds(), (Names{"B1"}));
            // One table for the enumeration, one ADL2 table per GPU.
            EXPECT_EQ(openContexts(machine), 3);
        }
        EXPECT_EQ(openContexts(machine), 0) << "every context ends with the GPUs";
    }
}

TEST(AmdEnumeration, OnlyExistingAMDAdaptersAwayFromTheZeroLocationCount)
{
    SimulatedMachine machine(adapters({
        adapter(2, "", {{"vendorId", 0x1002}}),
        adapter(3, "", {{"vendorId", 0x1022}}),
        adapter(4, "", {{"vendorId", 1002}}), // decimal, as some drivers report it
        adapter(5, "", {{"vendorId", 0x10DE}}),
        adapter(6, "", {{"exist", 0}, {"present", 0}}),
        adapter(0, ""),
        adapter(7, "", {{"exist", 1}, {"present", 0}}),
        adapter(8, "", {{"connected", false}}), // listed only to clients that ask for every adapter
    }));
    std::vector<pci::PciLocation> found;
    for (const AMDGPU& gpu : enumerated())
        found.push_back(gpu.pciLocation());
#if defined(_WIN32)
    // Windows drivers say in iExist whether an adapter exists.
    EXPECT_EQ(found, (std::vector<pci::PciLocation>{at(2), at(3), at(4), at(7)}));
#else
    // The Linux AdapterInfo has no iExist; iPresent stands for it.
    EXPECT_EQ(found, (std::vector<pci::PciLocation>{at(2), at(3), at(4)}));
#endif
}

TEST(AmdEnumeration, AnAdapterListThatCannotBeReadGivesNoGPUs)
{
    const std::vector<json> two{adapter(3, "A"), adapter(4, "B")};
    const struct {
        json faults;
        size_t gpus;
        const char* line;
    } rows[] = {
        {{{"ADL2_Adapter_AdapterInfoX2_Get", {{"return", -5}}}}, 0, "250 ADL2_Adapter_AdapterInfoX2_Get failed -5"},
        {{{"ADL2_Adapter_NumberOfAdapters_Get", {{"return", -2}}}}, 0, "193 Adapter_NumberOfAdapters_Get failed -2"},
        {{{"ADL2_Adapter_AdapterInfoX2_Get", {{"null", true}}}}, 0, "198 Bad adapterInfo parameter"},
        // A count beyond ADL's list: the list is read to its end and no further.
        {{{"ADL2_Adapter_NumberOfAdapters_Get", {{"count", 40}}}}, 2, "194 ADL list shorter than its count, entries read: 2"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        std::vector<AMDGPU> gpus;
        {
            SimulatedMachine good(adapters(two));
            gpus = enumerated(); // a list the call must clear
        }
        SimulatedMachine machine(adapters(two, row.faults));
        LogCapture capture;
        EXPECT_EQ(AMDGPU::enumerate(gpus), row.gpus);
        EXPECT_EQ(gpus.size(), row.gpus);
        EXPECT_TRUE(logged(capture, 3, row.line));
        EXPECT_EQ(machine.count("ADL2_Adapter_AdapterInfo_Get"), 0u) << "a failing X2 call is not retried";
    }
}

// An adapter at <bus>:00.0 with one of its numbers changed.
json misplaced(int bus, const char* number, int value)
{
    json entry = adapter(bus, "B");
    entry["pci"][number] = value;
    return entry;
}

TEST(AmdEnumeration, ACountNoMachineHasOrAPlaceOffTheBusMakesNoGPU)
{
    // A count near INT_MAX is a broken driver: nothing is allocated for it. (The
    // X2 list that enumerate reads is ADL's own, read to its end.)
    {
        SimulatedMachine machine(adapters({adapter(3, "A")},
                                          {{"ADL2_Adapter_NumberOfAdapters_Get", {{"count", 2147483647}}}}));
        LogCapture capture;
        EXPECT_THROW(AMDGPU gpu(at(3)), std::exception);
        EXPECT_TRUE(logged(capture, 3, "700 Adapter count beyond any machine, not enumerating: 2147483647"));
    }
    // Device 40 or function 9 is no PCI location: such an adapter is left out.
    SimulatedMachine machine(adapters({adapter(3, "A"), misplaced(4, "device", 40), misplaced(5, "function", 9)}));
    LogCapture capture;
    const std::vector<AMDGPU> gpus = enumerated();
    ASSERT_EQ(gpus.size(), 1u);
    EXPECT_EQ(gpus[0].pciLocation(), at(3));
    EXPECT_TRUE(logged(capture, 3, "701 Adapter outside the PCI bus, skipped: bus 4, device 40, function 0"));
    EXPECT_TRUE(logged(capture, 3, "701 Adapter outside the PCI bus, skipped: bus 5, device 0, function 9"));
}

// A host's own static list of GPUs outlives the library's ADL, which ends at
// exit before it: its tables must find nothing left to call into.
std::vector<AMDGPU> hostGPUs;

TEST(AmdIdentity, GPUsThatOutliveTheLibrarysADLEndQuietlyAtExit)
{
    SimulatedMachine machine(adapters({adapter(3, "A")}));
    hostGPUs = enumerated();
    hostGPUs.emplace_back(at(3));
    EXPECT_EQ(hostGPUs.size(), 2u); // the process's clean exit is the check
}

// An object without adapters (moved from) answers every operation as a failure.
TEST(AmdIdentity, AMovedFromGPUAnswersEveryOperationAsAFailure)
{
    SimulatedMachine machine(scenario({gpuAt(3, {{"overdrive5", {{"temperature", 50000}}}})}));
    std::vector<AMDGPU> gpus = enumerated();
    ASSERT_EQ(gpus.size(), 1u);
    AMDGPU moved = std::move(gpus[0]);
    AMDGPU& gone = gpus[0];
    gone.refresh();
    EXPECT_EQ(gone.currentClock(), 0u);
    EXPECT_EQ(gone.currentMemoryClock(), 0u);
    EXPECT_EQ(gone.defaultClock(), 0u);
    EXPECT_EQ(gone.defaultMemoryClock(), 0u);
    std::vector<float> temperatures{1.0f};
    gone.currentTemperature(temperatures);
    EXPECT_TRUE(temperatures.empty());
    std::vector<int> usage;
    gone.currentGPUUsage(usage);
    EXPECT_TRUE(usage.empty());
    EXPECT_FALSE(gone.isDiscrete());
    EXPECT_TRUE(gone.displayIds().empty());
    libKestrel::adl::ADLOD8InitSetting init{};
    libKestrel::adl::ADLOD8CurrentSetting current{};
    EXPECT_NE(gone.GetOD8InitSetting(0, init), 0);
    EXPECT_NE(gone.GetOD8CurrentSetting(0, current), 0);
    // The GPU it moved to still answers.
    moved.currentTemperature(temperatures);
    EXPECT_EQ(temperatures, std::vector<float>{50.0f});
}

TEST(AmdIdentity, AFamilyCountsOnlyWithItsValidBitAndTheFirstAdapterSetsIt)
{
    using Predicate = bool (AMDGPU::*)() const;
    const Predicate predicates[] = {&AMDGPU::isDiscrete, &AMDGPU::isIntegrated, &AMDGPU::isFireGL,
                                    &AMDGPU::isFireMV,   &AMDGPU::isXGP,        &AMDGPU::isFusion,
                                    &AMDGPU::isFireStream, &AMDGPU::isEmbedded};
    // GPU n has every family bit, but only bit n valid.
    std::vector<json> list;
    for (int bit = 0; bit < 8; ++bit)
        list.push_back(adapter(10 + bit, "", {{"asic", {{"types", 0xFF}, {"valids", 1 << bit}}}}));
    // Fusion without its valid bit; then two adapters of one GPU that disagree.
    list.push_back(adapter(20, "", {{"asic", {{"types", 0x21}, {"valids", 0x01}}}}));
    list.push_back(adapter(21, "", {{"asic", {{"types", 0x02}, {"valids", 0x02}}}}));
    list.push_back(adapter(21, "", {{"asic", {{"types", 0x01}, {"valids", 0x01}}}}));
    SimulatedMachine machine(adapters(list));
    const std::vector<AMDGPU> gpus = enumerated();
    ASSERT_EQ(gpus.size(), 10u);
    for (int bit = 0; bit < 8; ++bit)
        for (int asked = 0; asked < 8; ++asked)
            EXPECT_EQ((gpus[bit].*predicates[asked])(), bit == asked) << "valid bit " << bit << ", predicate " << asked;
    EXPECT_TRUE(gpus[8].isDiscrete());
    EXPECT_FALSE(gpus[8].isFusion());
    EXPECT_TRUE(gpus[9].isIntegrated());
    EXPECT_FALSE(gpus[9].isDiscrete());
}

TEST(AmdIdentity, APciLocationGathersEveryAdapterThereAndAnUnknownOneThrows)
{
    SimulatedMachine machine(adapters({adapter(3, "A1"), adapter(4, "B1"), adapter(3, ""), adapter(3, "A3"),
                                       adapter(3, "A4", {{"vendorId", 0x10DE}})}));
    LogCapture capture;
    {
        // ADL has no PCI domain: the GPU is found without it and reports 0.
        const AMDGPU gpu(pci::PciLocation(3, 0, 0, 7));
        EXPECT_EQ(gpu.pciLocation(), at(3));
        // Every adapter at the location, whatever its vendor.
        EXPECT_EQ(gpu.displayIds(), (Names{"A1", "A3", "A4"}));

        EXPECT_EQ(thrownBy([] { AMDGPU missing(at(9)); }),
                  "Cannot find a matching ADL adapter id given the PCI location.");
        EXPECT_TRUE(logged(capture, 3, "130 Cannot find a matching ADL adapter id given the PCI location."));
    }
    EXPECT_EQ(openContexts(machine), 0) << "a constructor that throws leaves no context behind";
}

TEST(AmdIdentity, ACountThatCannotBeReadFailsTheConstructor)
{
    SimulatedMachine machine(adapters({adapter(3, "A1")}, {{"ADL2_Adapter_NumberOfAdapters_Get", {{"return", -1}}}}));
    LogCapture capture;
    EXPECT_THROW(AMDGPU gpu(at(3)), std::exception);
    EXPECT_TRUE(logged(capture, 3, "90 ADL2_Adapter_NumberOfAdapters_Get failed -1"));
}

TEST(AmdIdentity, CopiesShareTheLocationAndTheTablesAndAMovedFromGPUHasNone)
{
    SimulatedMachine machine(adapters({adapter(3, "A1")}));
    {
        std::vector<AMDGPU> gpus = enumerated();
        ASSERT_EQ(gpus.size(), 1u);
        AMDGPU copy = gpus[0];
        EXPECT_EQ(&copy.pciLocation(), &gpus[0].pciLocation());
        AMDGPU assigned(at(3));
        assigned = copy;
        EXPECT_EQ(&assigned.pciLocation(), &gpus[0].pciLocation());
        AMDGPU moved = std::move(copy);
        EXPECT_EQ(&moved.pciLocation(), &gpus[0].pciLocation());
        EXPECT_EQ(copy.pciLocation(), pci::PciLocation()) << "no adapter, no location";
        std::vector<AMDGPU> none;
        EXPECT_FALSE(copy.hasCrossFireSlaveGPU(none));
        // The enumeration's table and the GPU's ADL2 table: copies make none, and
        // the GPU built by location gave its own two up when it was assigned.
        EXPECT_EQ(openContexts(machine), 2);
    }
    EXPECT_EQ(openContexts(machine), 0);
}

// GPU A (adapter 0) leads a CrossFire chain described by 'crossfire'; GPU B is
// adapter 1. Returns what A says, with the linked GPUs' locations.
std::pair<bool, std::vector<pci::PciLocation>> crossfire(const std::string& section, const json& faults = {})
{
    SimulatedMachine machine(scenario({gpuAt(3, {{"crossfire", json::parse(section)}}), gpuAt(4, json::object())},
                                      faults.is_null() ? json::object() : faults));
    std::vector<pci::PciLocation> linked;
    bool leads = false;
    {
        std::vector<AMDGPU> gpus = enumerated();
        std::vector<AMDGPU> links(1, gpus.back()); // cleared by the call
        leads = gpus.at(0).hasCrossFireSlaveGPU(links);
        for (const AMDGPU& link : links)
            linked.push_back(link.pciLocation());
    }
    EXPECT_EQ(openContexts(machine), 0);
    return {leads, linked};
}

TEST(AmdCrossFire, AnActiveChainListsItsLinkedGPUs)
{
    LogCapture capture;
    EXPECT_EQ(crossfire(R"({"preferred": 0, "combinations": [{"adapters": [1], "state": 1}]})"),
              std::make_pair(true, std::vector<pci::PciLocation>{at(4)}));
    EXPECT_TRUE(logged(capture, 1, "333 Adapter_Crossfire_Caps returns 0"));
    EXPECT_TRUE(logged(capture, 1, "340 Adapter_Crossfire_Get returs 0"));

    // The preferred combination is the one asked about.
    EXPECT_EQ(crossfire(R"({"preferred": 1, "state": 1, "combinations": [[0], [1]]})").second,
              std::vector<pci::PciLocation>{at(4)});
    // A link to an adapter ADL no longer lists gives a GPU without adapters.
    EXPECT_EQ(crossfire(R"({"preferred": 0, "state": 1, "combinations": [[9]]})").second,
              std::vector<pci::PciLocation>{pci::PciLocation()});
}

TEST(AmdCrossFire, NoChainOrAChainADriverDescribesBadlyIsNotActive)
{
    const std::pair<bool, std::vector<pci::PciLocation>> inactive{false, {}};
    LogCapture capture;
    EXPECT_EQ(crossfire(R"({"preferred": 0, "combinations": [{"adapters": [1], "state": 0}]})"), inactive);
    EXPECT_EQ(crossfire(R"({"preferred": -1, "state": 1, "combinations": [[1]]})"), inactive);
    EXPECT_EQ(crossfire(R"({"preferred": 0, "state": 1, "combinations": []})"), inactive);
    EXPECT_EQ(crossfire(R"({"preferred": 0, "state": 1, "combinations": [[1]]})",
                        {{"ADL2_Adapter_Crossfire_Get", {{"return", -1}}}}),
              inactive);
    EXPECT_TRUE(logged(capture, 1, "340 Adapter_Crossfire_Get returs -1"));
    EXPECT_EQ(crossfire(R"({"preferred": 0, "state": 1, "combinations": [[1]]})",
                        {{"ADL2_Adapter_Crossfire_Caps", {{"return", -8}}}}),
              inactive);
    EXPECT_TRUE(logged(capture, 1, "333 Adapter_Crossfire_Caps returns -8"));

    // A preferred index past the list, or a list that is missing: nothing is
    // read from outside it.
    EXPECT_EQ(crossfire(R"({"preferred": 5, "state": 1, "combinations": [[1]]})"), inactive);
    EXPECT_TRUE(logged(capture, 3, "336 Preferred CrossFire combination outside the list: 5"));
    EXPECT_EQ(crossfire(R"({"preferred": 0, "state": 1, "combinations": [[1]]})",
                        {{"ADL2_Adapter_Crossfire_Caps", {{"null", true}}}}),
              inactive);
    // A combination that claims more links than it holds gives the ones it holds.
    const auto links = crossfire(R"({"preferred": 0, "state": 1, "combinations": [{"adapters": [1], "linkCount": 7}]})");
    EXPECT_TRUE(links.first);
    EXPECT_EQ(links.second, (std::vector<pci::PciLocation>{at(4), at(3), at(3)}));
    EXPECT_TRUE(logged(capture, 3, "341 CrossFire link count outside the combination: 7"));
}

} // namespace
