// Where a helper is run from, and where the libraries it loads are looked for:
// never the current folder, whatever it is when the query runs.
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "common/Paths.h"
#include "common/Process.h"
#include "common/Test.h"

namespace {

namespace fs = std::filesystem;

// A host that found the library through a relative search-path entry ("lib",
// beside the fake helper) and then moved to a folder holding a "lib/kestrel-probe"
// of its own: the planted one never runs, the one beside the library answers.
TEST(Isolation, TheHelperBesideTheLibraryRunsWhateverTheHostsCurrentFolder)
{
    const fs::path built = fs::u8path(kestrel::test::executableDirectory());
    const fs::path root = fs::u8path(kestrel::test::temporaryPath("relative"));
    const fs::path planted = root / "planted" / "lib" / "kestrel-probe";
    fs::create_directories(root / "lib");
    fs::create_directories(planted.parent_path());
    fs::copy_file(built / KESTREL_LIBRARY_SONAME, root / "lib" / KESTREL_LIBRARY_SONAME);
    fs::copy_file(built / "fake_kestrel_probe", root / "lib" / "kestrel-probe");
    std::ofstream(planted) << "#!/bin/sh\ntouch \"$0.ran\"\n";
    fs::permissions(planted, fs::perms::owner_all);
    // The simulated GLFW too: the machine's own may leak when it cannot start.
    const std::string searchPath = "lib:" + kestrel::test::SimulatedModules::folder("sim_glfw");
    const auto run = kestrel::test::runProcess((built / "relative_host").u8string(), {"planted"},
                                               {root.u8string(), {{"LD_LIBRARY_PATH", searchPath}}});
    const bool ran = fs::exists(planted.u8string() + ".ran");
    fs::remove_all(root);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, "0000:42:00.0 Fake nvapi\n") << run.err;
    EXPECT_FALSE(ran) << "the planted helper ran";
}

// kestrel --simulate puts the simulated modules on its children's search path.
// With no path of its own to add them to, it must add no empty entry, which
// the loader reads as the current folder: there, a file under the name of a
// library the helper loads (one that kestrel's own search path finds first, in
// the build's folder) would be loaded, and, not being one, stop every helper.
TEST(Isolation, KestrelGivesItsHelpersNoSearchPathEntryForTheCurrentFolder)
{
    const fs::path folder = fs::u8path(kestrel::test::temporaryPath("planted-library"));
    fs::create_directories(folder);
    std::ofstream(folder / "libtova.so.0") << "not a library";
    const auto run = kestrel::test::runProcess(
        kestrel::test::executableDirectory() + "kestrel",
        {"--simulate", std::string(std::getenv("KESTREL_SCENARIOS")) + "/workstation.json", "--isolate"},
        {folder.u8string(), {{"LD_LIBRARY_PATH", std::nullopt}}});
    fs::remove_all(folder);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out.rfind("0000:65:00.0  NVIDIA GeForce RTX 2080 Ti\n", 0), 0u) << run.out;
}

} // namespace
