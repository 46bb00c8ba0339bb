// The sysfs source against trees written here: what each kind of card gives,
// each conversion, and what bad files and trees cost.
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <regex>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/Paths.h"
#include "common/Test.h"
#include "libKestrel/Session.h"
#include "libKestrel/internal/linux/pciwrapper.h"

namespace {

namespace fs = std::filesystem;
using namespace kestrel::test;
using Files = std::map<std::string, std::string>;

const char* const sysfs = "libKestrel.Sysfs";

// A sysfs tree in a temporary folder, which KESTREL_SYSFS_ROOT names while it lives.
class SysfsTree {
public:
    SysfsTree() : root_(fs::u8path(temporaryPath("sysfs")))
    {
        fs::remove_all(root_);
        fs::create_directories(root_ / "bus/pci/devices");
        setenv("KESTREL_SYSFS_ROOT", root_.u8string().c_str(), 1);
    }
    ~SysfsTree()
    {
        unsetenv("KESTREL_SYSFS_ROOT");
        fs::remove_all(root_);
    }

    // A PCI device at 'address' with its identity, a driver bound when 'driver'
    // is not empty, and further files (paths below the device's folder).
    fs::path device(const std::string& address, const char* vendor, const char* id, const char* pciClass,
                    const std::string& driver = "", const Files& files = {})
    {
        const fs::path folder = root_ / "bus/pci/devices" / address;
        write(folder / "vendor", vendor);
        write(folder / "device", id);
        write(folder / "class", pciClass);
        if (!driver.empty()) {
            fs::create_directories(root_ / "bus/pci/drivers" / driver);
            fs::create_directory_symlink(root_ / "bus/pci/drivers" / driver, folder / "driver");
        }
        for (const auto& [path, text] : files)
            write(folder / path, text);
        return folder;
    }

    static void write(const fs::path& file, const std::string& text)
    {
        fs::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << text;
    }

    const fs::path& root() const { return root_; }

private:
    fs::path root_;
};

Records querySysfs()
{
    std::bitset<4> status("0101");
    auto records = libKestrel::querySysfsGPUs(status);
    EXPECT_EQ(status, std::bitset<4>("0101"));
    return records;
}

// querySysfs on another thread, within a deadline: a query still blocked then
// fails the test, and writers opened on the tree's FIFOs let it finish.
Records querySysfsWithin(const fs::path& root)
{
    auto query = std::async(std::launch::async, querySysfs);
    if (query.wait_for(std::chrono::seconds(10)) == std::future_status::timeout) {
        ADD_FAILURE() << "the query blocks";
        while (query.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout)
            for (const auto& entry : fs::recursive_directory_iterator(root))
                if (entry.is_fifo())
                    if (const int writer = open(entry.path().c_str(), O_WRONLY | O_NONBLOCK); writer >= 0)
                        close(writer);
    }
    return query.get();
}

std::size_t openDescriptors()
{
    const fs::directory_iterator entries("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(fs::begin(entries), fs::end(entries)));
}

enum Kind { Text, Folder, Fifo };

// A file of 'kind' at 'file', in place of what was there; 'text' is a Text file's.
void make(const fs::path& file, Kind kind, const std::string& text = "")
{
    fs::remove_all(file);
    if (kind == Text)
        SysfsTree::write(file, text);
    else if (kind == Folder)
        fs::create_directories(file);
    else
        ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
}

// 'line' with its "{}" replaced by 'path'.
std::string withPath(std::string line, const fs::path& path)
{
    if (const auto at = line.find("{}"); at != std::string::npos)
        line.replace(at, 2, path.u8string());
    return line;
}

// A record's description without the properties 'lost' names (blank-separated).
std::string without(std::string description, const std::string& lost)
{
    std::istringstream names(lost);
    for (std::string name; names >> name;)
        description = std::regex_replace(description, std::regex(" " + name + "=.*?(?= [A-Za-z]+=|$)"), "");
    return description;
}

const Files amdgpuFiles = {{"current_link_speed", "16.0 GT/s PCIe\n"},
                           {"mem_info_vram_total", "17163091968\n"},
                           {"mem_info_vram_used", "1073741824\n"},
                           {"gpu_busy_percent", "37\n"},
                           {"mem_busy_percent", "12\n"},
                           {"vbios_version", "113-D4120100-101\n"},
                           {"unique_id", "3b1f2e4c5d6a7b80\n"},
                           {"hwmon/hwmon3/temp1_input", "54000\n"},
                           {"hwmon/hwmon9/temp1_input", "99000\n"}, // the first folder counts
                           {"hwmon/hwmon3/temp1_crit", "100000\n"},
                           {"hwmon/hwmon3/fan1_input", "1650\n"},
                           {"hwmon/hwmon3/pwm1", "102\n"},
                           {"hwmon/hwmon3/pwm1_max", "255\n"},
                           {"hwmon/hwmon3/freq1_input", "2250000000\n"},
                           {"hwmon/hwmon3/freq2_input", "1000000000\n"},
                           {"current_link_width", "16\n"},
                           {"max_link_speed", "16.0 GT/s PCIe\n"},
                           {"max_link_width", "16\n"},
                           {"hwmon/hwmon3/temp1_label", "edge\n"},
                           {"hwmon/hwmon3/temp2_input", "71000\n"},
                           {"hwmon/hwmon3/temp2_label", "junction\n"},
                           {"hwmon/hwmon3/temp3_input", "62000\n"},
                           {"hwmon/hwmon3/temp3_label", "mem\n"},
                           {"hwmon/hwmon3/power1_average", "142500000\n"}, // before power1_input
                           {"hwmon/hwmon3/power1_input", "150000000\n"},
                           {"hwmon/hwmon3/power1_cap", "213000000\n"},
                           {"hwmon/hwmon3/energy1_input", "4318275000000\n"}};

TEST(Sysfs, EachDisplayControllerGivesARecordWithWhatItsDriverOffers)
{
    SysfsTree tree;
    tree.device("0000:03:00.0", "0x1002", "0x73bf", "0x030000", "amdgpu", amdgpuFiles);
    tree.device("0000:00:02.0", "0x8086", "0x9a49", "0x030000", "i915"); // no sensors
    tree.device("0000:65:00.0", "0x10de", "0x2204", "0x030000", "nvidia",
                {{"current_link_speed", "8.0 GT/s PCIe\n"}, {"hwmon/hwmon1/temp1_input", "47500\n"},
                 {"hwmon/hwmon1/pwm1", "1\n"}, {"hwmon/hwmon1/pwm1_max", "1\n"}, // a fan only on or off
                 {"hwmon/hwmon1/power1_input", "301250999\n"}}); // no average: the power now
    tree.device("0000:04:00.0", "0x8086", "0x15f3", "0x020000", "igc"); // a network controller
    tree.device("10001:07:00.0", "0x1234", "0xabcd", "0x038000");         // unknown to the database, no driver
    LogCapture capture(tova::LoggerPriority::WARNING);
    EXPECT_EQ(describe(querySysfs()),
              (Lines{"0000:00:02.0 name=Intel Corporation TigerLake-LP GT2 [Iris Xe Graphics] hardwareAcceleration=true",
                     "0000:03:00.0 name=Advanced Micro Devices, Inc. [AMD/ATI] Navi 21 [Radeon RX 6800/6800 XT / 6900 XT] "
                     "hardwareAcceleration=true vbiosVersion=113-D4120100-101 dedicatedMemory=16760832 "
                     "availableDedicatedMemory=15712256 graphicsClock=2250000 memoryClock=1000000 busType=PCI Express "
                     "utilizationGPU=37 utilizationMemory=12 temperatureCurrent=54 temperatureShutdown=100 "
                     "uuid=3b1f2e4c5d6a7b80 fanSpeedPercent=40 fanSpeedRPM=1650 powerDraw=142500 powerLimit=213000 "
                     "energyConsumed=4318275000 temperatureHotspot=71 temperatureMemory=62 pcieLinkGeneration=4 "
                     "pcieLinkWidth=16 pcieLinkGenerationMax=4 pcieLinkWidthMax=16",
                     "0000:65:00.0 name=NVIDIA Corporation GA102 [GeForce RTX 3090] hardwareAcceleration=true "
                     "busType=PCI Express temperatureCurrent=47 fanSpeedPercent=100 powerDraw=301250 "
                     "pcieLinkGeneration=3",
                     "10001:07:00.0 name=PCI device 1234:abcd hardwareAcceleration=false"}));
    EXPECT_TRUE(capture.lines().empty()) << "missing files are what a driver does not offer";
}

// A session reads the sensor files again at each refresh, amdgpu's own with hwmon's.
TEST(Sysfs, ASessionReadsTheSensorFilesAgainAtEachRefresh)
{
    SysfsTree tree;
    const fs::path device = tree.device("0000:03:00.0", "0x1002", "0x73bf", "0x030000", "amdgpu", amdgpuFiles);
    libKestrel::Session session({libKestrel::querySysfsGPUs});
    SysfsTree::write(device / "hwmon/hwmon3/temp1_input", "61000\n");
    SysfsTree::write(device / "gpu_busy_percent", "80\n");
    SysfsTree::write(device / "hwmon/hwmon3/power1_average", "201000000\n");
    SysfsTree::write(device / "hwmon/hwmon3/energy1_input", "4318900000000\n");
    SysfsTree::write(device / "hwmon/hwmon3/temp2_input", "88000\n");
    SysfsTree::write(device / "hwmon/hwmon3/temp3_input", "79000\n");
    SysfsTree::write(device / "current_link_speed", "2.5 GT/s PCIe\n");
    session.refresh();
    const auto refreshed = session.gpus();
    EXPECT_EQ(describe(refreshed), describe(querySysfs())) << "61 degrees, 80 % busy";
    ASSERT_EQ(refreshed.size(), 1u);
    EXPECT_EQ(refreshed[0]->powerDraw(), 201000u);
    EXPECT_EQ(refreshed[0]->energyConsumed(), 4318900000u);
    EXPECT_EQ(refreshed[0]->temperatureHotspot(), 88u);
    EXPECT_EQ(refreshed[0]->temperatureMemory(), 79u);
    EXPECT_EQ(refreshed[0]->pcieLinkGeneration(), 1u);
    EXPECT_TRUE(session.sources().at(0).up);
}

// Each bad amdgpu or hwmon file costs the properties read from it, none other,
// says why at warning priority, blocks nothing and leaves nothing open.
TEST(Sysfs, ABadFileCostsItsPropertyAndSaysWhy)
{
    const Lines whole = [] {
        SysfsTree tree;
        tree.device("0000:03:00.0", "0x1002", "0x73bf", "0x030000", "amdgpu", amdgpuFiles);
        return describe(querySysfs());
    }();
    ASSERT_EQ(whole.size(), 1u);
    const struct {
        const char* file; // below the device's folder
        Kind kind;
        std::string content; // of a Text file
        const char* lost;    // the properties it costs, blank-separated
        const char* line;    // the warning, "{}" for the file's path; null: none
    } rows[] = {
        {"hwmon/hwmon3/temp1_input", Text, "garbage\n", "temperatureCurrent", "66 Not a number in {}: garbage"},
        {"hwmon/hwmon3/temp1_input", Text, "", "temperatureCurrent", "52 Empty file: {}"},
        {"hwmon/hwmon3/temp1_input", Text, "\n", "temperatureCurrent", "52 Empty file: {}"},
        {"hwmon/hwmon3/temp1_input", Text, "-5000\n", "temperatureCurrent", "66 Not a number in {}: -5000"},
        {"hwmon/hwmon3/temp1_input", Text, "12 34\n", "temperatureCurrent", "66 Not a number in {}: 12 34"},
        {"hwmon/hwmon3/temp1_input", Text, "18446744073709551616\n", "temperatureCurrent",
         "66 Not a number in {}: 18446744073709551616"},
        {"hwmon/hwmon3/temp1_input", Folder, "", "temperatureCurrent", "45 Cannot read {}"},
        {"hwmon/hwmon3/temp1_input", Fifo, "", "temperatureCurrent", "46 Not a regular file: {}"},
        {"hwmon/hwmon3/temp1_input", Text, std::string(250, '0') + "54000\n", "", nullptr}, // 256 bytes: the most
        {"hwmon/hwmon3/temp1_input", Text, std::string(251, '0') + "54000\n", "temperatureCurrent",
         "47 Longer than 256 bytes: {}"},
        {"hwmon/hwmon3/pwm1_max", Fifo, "", "fanSpeedPercent", "46 Not a regular file: {}"},
        {"vbios_version", Text, std::string(4096, 'x'), "vbiosVersion", "47 Longer than 256 bytes: {}"},
        {"unique_id", Fifo, "", "uuid", "46 Not a regular file: {}"},
        {"mem_info_vram_total", Folder, "", "dedicatedMemory availableDedicatedMemory", "45 Cannot read {}"},
        {"hwmon/hwmon0", Text, "1\n", "", nullptr}, // first by name, but no folder: hwmon3 is read
        {"hwmon/hwmon3/temp2_input", Text, "201000\n", "temperatureHotspot",
         "70 Reading beyond any GPU left out in {}: 201000"},
        {"hwmon/hwmon3/temp2_label", Fifo, "", "temperatureHotspot", "46 Not a regular file: {}"},
        {"hwmon/hwmon3/temp3_label", Text, "memory\n", "temperatureMemory", nullptr}, // not amdgpu's label
        {"hwmon/hwmon3/power1_cap", Text, "10000001000\n", "powerLimit",
         "70 Reading beyond any GPU left out in {}: 10000001000"},
        {"hwmon/hwmon3/energy1_input", Text, "-5\n", "energyConsumed", "66 Not a number in {}: -5"},
        {"current_link_speed", Text, "12.0 GT/s PCIe\n", "pcieLinkGeneration",
         "72 Not a PCIe link speed in {}: 12.0 GT/s PCIe"},
        {"current_link_speed", Text, "Unknown\n", "pcieLinkGeneration", nullptr}, // no link: said as a trace
        {"max_link_width", Text, "33\n", "pcieLinkWidthMax", "70 Reading beyond any GPU left out in {}: 33"},
        {"current_link_width", Text, "0\n", "pcieLinkWidth", "70 Reading beyond any GPU left out in {}: 0"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.file) + " " + (row.line ? row.line : "read"));
        SysfsTree tree;
        const fs::path file =
            tree.device("0000:03:00.0", "0x1002", "0x73bf", "0x030000", "amdgpu", amdgpuFiles) / row.file;
        make(file, row.kind, row.content);
        const std::size_t descriptors = openDescriptors();
        LogCapture capture(tova::LoggerPriority::WARNING);
        EXPECT_EQ(describe(querySysfsWithin(tree.root())), Lines{without(whole.front(), row.lost)});
        EXPECT_EQ(openDescriptors(), descriptors);
        EXPECT_EQ(capture.of(sysfs), row.line ? Lines{"3|" + withPath(row.line, file)} : Lines{});
    }
}

// Every link speed a kernel writes, in its newer form and its older one, is a
// PCIe generation.
TEST(Sysfs, LinkSpeedsReadAsPcieGenerations)
{
    const struct {
        const char* speed;
        const char* generation; // the record's, or "" for none
    } rows[] = {{"2.5 GT/s PCIe", "1"}, {"2.5 GT/s", "1"},   {"5.0 GT/s PCIe", "2"}, {"5 GT/s", "2"},
                {"8.0 GT/s PCIe", "3"}, {"8 GT/s", "3"},     {"16.0 GT/s PCIe", "4"}, {"32.0 GT/s PCIe", "5"},
                {"64.0 GT/s PCIe", "6"}, {"128.0 GT/s PCIe", "7"}, {"Unknown speed", ""}, {"2.5GT/s", ""}};
    SysfsTree tree;
    const fs::path device = tree.device("0000:03:00.0", "0x1002", "0x73bf", "0x030000", "amdgpu");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.speed);
        SysfsTree::write(device / "max_link_speed", std::string(row.speed) + "\n");
        const Records records = querySysfs();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0]->pcieLinkGenerationMax(),
                  *row.generation ? std::optional<std::uint32_t>(std::stoul(row.generation)) : std::nullopt);
    }
}

// A device libpci cannot read, which only reading tells (a value too long, a
// device unplugged after the listing), is left out with libpci's reason; the
// others are kept and nothing is left open.
TEST(Sysfs, ADeviceLibpciCannotReadIsLeftOutAndSaysWhy)
{
    const struct {
        const char* file;                                 // made too long before the query; null: none
        void (*afterListing)(const std::string& devices); // between the listing and libpci's reading
        const char* reason;                               // libpci's, "{}" for the device's folder
    } rows[] = {
        {"vendor", nullptr, "Value in {}/vendor too long"},
        {"device", nullptr, "Value in {}/device too long"},
        {"class", nullptr, "Value in {}/class too long"},
        {nullptr, [](const std::string& devices) { fs::remove_all(fs::u8path(devices) / "0000:03:00.0"); },
         "Cannot open {}/vendor: No such file or directory"},
        {nullptr, [](const std::string& devices) { make(fs::u8path(devices) / "0000:03:00.0/vendor", Folder); },
         "Error reading {}/vendor: Is a directory"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.reason);
        SysfsTree tree;
        tree.device("0000:00:02.0", "0x8086", "0x9a49", "0x030000", "i915");
        const fs::path device = tree.device("0000:03:00.0", "0x1002", "0x73bf", "0x030000");
        if (row.file)
            make(device / row.file, Text, std::string(4096, '0'));
        libKestrel::pci_library::setAfterListing(row.afterListing);
        const std::size_t descriptors = openDescriptors();
        LogCapture capture(tova::LoggerPriority::WARNING);
        const Records records = querySysfs();
        libKestrel::pci_library::setAfterListing(nullptr);
        EXPECT_EQ(openDescriptors(), descriptors);
        EXPECT_EQ(describe(records), Lines{"0000:00:02.0 name=Intel Corporation TigerLake-LP GT2 [Iris Xe Graphics] "
                                           "hardwareAcceleration=true"});
        EXPECT_EQ(capture.of("libKestrel.PCI"),
                  Lines{"3|149 libpci cannot read 0000:03:00.0, skipped: " + withPath(row.reason, device)});
    }
}

// What can be told without opening a file (a name, a missing or special
// identity file) refuses the whole tree before libpci, which reads with blocking
// calls, sees it: nothing blocks and nothing is left open.
TEST(Sysfs, ATreeLibpciCannotReadGivesNoRecordsAndSaysWhich)
{
    const struct {
        const char* name;
        void (*spoil)(const fs::path& device); // the tree's one device, 0000:03:00.0
        std::string unreadable;                // below the devices folder, or its full path
    } rows[] = {
        {"a folder that is no device", [](const fs::path& device) { make(device.parent_path() / "junk", Folder); },
         "junk"},
        {"a device without its class", [](const fs::path& device) { fs::remove(device / "class"); },
         "0000:03:00.0/class"},
        {"a folder for a vendor", [](const fs::path& device) { make(device / "vendor", Folder); },
         "0000:03:00.0/vendor"},
        {"a FIFO for a class", [](const fs::path& device) { make(device / "class", Fifo); }, "0000:03:00.0/class"},
        {"no devices folder", [](const fs::path& device) { fs::remove_all(device.parent_path()); }, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SysfsTree tree;
        row.spoil(tree.device("0000:03:00.0", "0x1002", "0x73bf", "0x030000"));
        const std::size_t descriptors = openDescriptors();
        LogCapture capture(tova::LoggerPriority::WARNING);
        EXPECT_TRUE(querySysfsWithin(tree.root()).empty());
        EXPECT_EQ(openDescriptors(), descriptors);
        const std::string which =
            row.unreadable.empty() ? (tree.root() / "bus/pci/devices").u8string() : row.unreadable;
        EXPECT_EQ(capture.of("libKestrel.PCI"), Lines{"3|135 Cannot enumerate the PCI devices, unreadable: " + which});
    }
}

} // namespace
