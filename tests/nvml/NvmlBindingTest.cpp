#include <bitset>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "NvmlTesting.h"
#include "common/LogCapture.h"
#include "common/Paths.h"
#include "common/Simulator.h"
#include "libKestrel/Sources.h"
#include "libKestrel/internal/multi/NVidia/nvmlwrapper.h"

namespace {

using namespace kestrel::test;
using Priority = tova::LoggerPriority;
using Lines = std::vector<std::string>;

class NvmlBinding : public NvmlTest {};

TEST_F(NvmlBinding, ResolvesEveryKeptEntryAndReleasesThemAll)
{
    SimulatedMachine machine("{}");
    LogCapture capture;
    ASSERT_TRUE(libKestrel::initializeLibrary());
    EXPECT_EQ(nullEntries(), Lines{});
    EXPECT_TRUE(libKestrel::nvmlBinding().library.isLoaded());

    // A second load replaces the first: one release still unloads the module.
    ASSERT_TRUE(libKestrel::initializeLibrary());
    libKestrel::uninitializeLibrary();
    expectNvmlReleased();
    // Releasing what is not held changes nothing.
    libKestrel::uninitializeLibrary();
    expectNvmlReleased();

    EXPECT_EQ(machine.journal(), (Lines{"load nvml", "unload nvml"})) << "binding calls no NVML function";
    EXPECT_EQ(capture.messages("libKestrel.NVML"), Lines{});
    EXPECT_TRUE(capture.has("libKestrel.NVML", 1,
                            "Entering initializeLibrary (libKestrel/src/multi/NVidia/nvmlwrapper.cpp:96)"));
    EXPECT_TRUE(capture.has("libKestrel.NVML", 1,
                            "Entering uninitializeLibrary (libKestrel/src/multi/NVidia/nvmlwrapper.cpp:144)"));
}

// No NVML where the driver would put it: an absent vendor, reported at priority 3.
TEST_F(NvmlBinding, MissingLibraryIsReportedAsAbsent)
{
#if defined(_WIN32)
    std::string folder = executableDirectory();
    folder.pop_back();
    setProgramFiles(folder.c_str());
    const std::string path = nvmlPathUnder(folder);
#else
    const std::string path = nvmlPathUnder("");
#endif
    SimulatedMachine machine("{}");
    LogCapture capture(Priority::WARNING);
    std::bitset<4> status;
    EXPECT_TRUE(libKestrel::queryNVidiaNvmlGPUsMulti(status).empty());
    EXPECT_TRUE(status.none());
    EXPECT_EQ(capture.messages("libKestrel.NVML"), Lines{"3|121 Cannot load NVML: File not found: " + path});
    EXPECT_EQ(capture.messages("libKestrel.NVidiaNvmlGPUQuerierMulti"), Lines{"3|195 Failed to load NVML"});
    EXPECT_EQ(machine.journal(), Lines{});
    expectNvmlReleased();
}

// A file under NVML's name that is no module: a graver failure than absence.
TEST_F(NvmlBinding, UnloadableLibraryIsReportedAsAFailedLoad)
{
    SimulatedMachine machine("{}");
    LogCapture capture(Priority::WARNING);
    std::bitset<4> status;
    EXPECT_TRUE(libKestrel::queryNVidiaNvmlGPUsMulti(status).empty());
    EXPECT_TRUE(status.none());
    EXPECT_EQ(capture.messages("libKestrel.NVML"),
              Lines{"4|128 Cannot load NVML: failed to load the nvml.dll file from: " + nvmlPathUnder(nvmlFolder())});
    EXPECT_EQ(capture.messages("libKestrel.NVidiaNvmlGPUQuerierMulti"), Lines{"3|195 Failed to load NVML"});
    expectNvmlReleased();
}

#if defined(_WIN32)
TEST_F(NvmlBinding, ProgramFilesFolderIsTakenAsItStands)
{
    SimulatedMachine machine("{}");
    LogCapture capture(Priority::WARNING);

    // A 32-bit-only system has no ProgramW6432: nothing is looked for.
    setProgramFiles(nullptr);
    EXPECT_FALSE(libKestrel::initializeLibrary());
    EXPECT_EQ(capture.messages("libKestrel.NVML"),
              Lines{"3|115 Cannot load NVML: Could not obtain path for the program files directory"});
    EXPECT_EQ(machine.journal(), Lines{});
    expectNvmlReleased();

    // A trailing backslash is kept, so the path has two in a row, which Windows
    // reads as one: the library is found and loads.
    capture.clear();
    setProgramFiles((nvmlFolder() + "\\").c_str());
    EXPECT_TRUE(libKestrel::initializeLibrary());
    EXPECT_EQ(nullEntries(), Lines{});
    libKestrel::uninitializeLibrary();
    EXPECT_EQ(machine.journal(), (Lines{"load nvml", "unload nvml"}));

    // Where it is not found, the message shows the doubled backslash.
    const std::string elsewhere = executableDirectory();
    ASSERT_EQ(elsewhere.back(), '\\');
    setProgramFiles(elsewhere.c_str());
    EXPECT_FALSE(libKestrel::initializeLibrary());
    EXPECT_EQ(capture.messages("libKestrel.NVML"),
              Lines{"3|121 Cannot load NVML: File not found: " + elsewhere + "\\NVIDIA Corporation\\NVSMI\\nvml.dll"});
    expectNvmlReleased();
}
#endif

} // namespace
