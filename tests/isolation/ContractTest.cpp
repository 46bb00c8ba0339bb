// The helper's contract, shown with a fake helper (FakeProbe.cpp) in
// kestrel-probe's place: what reaches it, what it leaves behind, and what
// becomes of a query whatever the helper or its host does. The cases change
// their process (signals, threads, children, descriptors), so each runs in a
// process of its own, from a copy of this program beside the fake helper
// (the CTest run leaves them out and runs the Isolation tests at the end).
#include <atomic>
#include <chrono>
#include <thread>

#include "TestCopy.h"
#include "common/Paths.h"
#include "common/Process.h"
#include "common/Records.h"
#include "common/Test.h"
#include "libKestrel/Isolated.h"
#include "tova/LogFactory.h"
#include "tova/Logger.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using kestrel::test::Lines;
using kestrel::test::LogCapture;
using kestrel::test::Priority;
using Clock = std::chrono::steady_clock;

const Lines fakeRecord = {"0000:42:00.0 name=Fake nvapi"};

// Milliseconds since 'start', as a failure shows them.
long long millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// An isolated query of one own source, answered by the fake helper as 'mode' says.
Lines fakeQuery(const char* mode, std::chrono::milliseconds deadline = 10s)
{
    kestrel::test::setEnvironment("KESTREL_FAKE_PROBE", mode);
    std::bitset<4> status;
    return kestrel::test::describe(libKestrel::queryAllGPUsIsolated({}, {libKestrel::queryNVidiaGPUs}, status, deadline));
}

class HelperContract : public testing::Test {
protected:
#if !defined(_WIN32)
    void SetUp() override
    {
        // Processes orphaned by an ended helper come here to be collected, not
        // to an init that may never collect them.
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        descriptors_ = kestrel::test::openDescriptors();
    }
    void TearDown() override
    {
        EXPECT_EQ(kestrel::test::childProcesses(getpid()), std::vector<int>{}) << "processes left behind";
        EXPECT_EQ(kestrel::test::openDescriptors(), descriptors_) << "descriptors left open";
    }
    std::vector<int> descriptors_;
#endif
    LogCapture capture_{Priority::WARNING};
};

TEST_F(HelperContract, WhatAVendorPrintsStaysOutOfTheAnswer)
{
    EXPECT_EQ(fakeQuery("stdout"), fakeRecord);
    EXPECT_EQ(capture_.of("libKestrel.Isolation"), Lines{});
}

TEST_F(HelperContract, AnAnswerOverTheBoundIsCutOffAndSaysSo)
{
    const auto start = Clock::now();
    EXPECT_EQ(fakeQuery("long", 10s), Lines{});
    EXPECT_LT(millisecondsSince(start), 10000) << "stopped when its answer passed the bound, not at the deadline";
    EXPECT_EQ(capture_.of("libKestrel.Isolation"),
              Lines{"4|152 Source nvapi answered more than 4194304 bytes and was stopped; its records are left out"});
}

TEST_F(HelperContract, HelperLogLinesKeepToTheHostsThresholds)
{
    tova::Logger* quiet = nullptr;
    tova::LogFactory::createLogger("fake.quiet", quiet);
    quiet->priority = Priority::CRITICAL;
    EXPECT_EQ(fakeQuery("logs"), fakeRecord);
    EXPECT_EQ(capture_.of("fake.probe"), Lines{"3|three"}) << "priorities 9 and -1 are no log line's";
    EXPECT_EQ(capture_.of("fake.quiet"), Lines{}) << "the logger's own threshold holds";
}

TEST_F(HelperContract, OnlyItsPipesReachTheHelper)
{
#if defined(_WIN32)
    SECURITY_ATTRIBUTES inherited{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    HANDLE ends[2] = {};
    ASSERT_TRUE(CreatePipe(&ends[0], &ends[1], &inherited, 0));
    kestrel::test::setEnvironment("KESTREL_FAKE_HANDLE", std::to_string(reinterpret_cast<std::uintptr_t>(ends[1])));
    const Lines reached = {"4|not the host's handle"};
#else
    // Left open across exec, as a host's own descriptors may be.
    int ends[3] = {open("/dev/null", O_RDONLY)};
    ASSERT_EQ(pipe(ends + 1), 0);
    const Lines reached = {"4|descriptors 0 1 2 3"};
#endif
    EXPECT_EQ(fakeQuery("descriptors"), fakeRecord);
    EXPECT_EQ(capture_.of("fake.probe"), reached);
    for (const auto end : ends)
#if defined(_WIN32)
        CloseHandle(end);
#else
        close(end);
#endif
}

#if !defined(_WIN32)
// The state of a process ('R', 'S', 't' for traced, 'Z' ended, not collected), 0 once collected.
char processState(pid_t pid)
{
    const std::string stat = kestrel::test::fileText("/proc/" + std::to_string(pid) + "/stat");
    const auto nameEnd = stat.rfind(')');
    return nameEnd == std::string::npos || nameEnd + 2 >= stat.size() ? 0 : stat[nameEnd + 2];
}

// The status of a child of this process once it ends, within ten seconds; a
// child that does not end by then is killed, and the status is -1.
int endOf(pid_t child)
{
    int status = 0;
    for (int tries = 0; tries < 10000; ++tries, usleep(1000))
        if (waitpid(child, &status, WNOHANG | __WALL) == child)
            return status;
    kill(child, SIGKILL);
    waitpid(child, &status, __WALL);
    return -1;
}

bool killed(int status) { return status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL; }

// This process's helper, once it runs as kestrel-probe (before exec it is a copy of this program), or 0.
pid_t helperOf(pid_t host)
{
    for (int tries = 0; tries < 10000; ++tries, usleep(1000))
        for (const int child : kestrel::test::childProcesses(host))
            if (kestrel::test::fileText("/proc/" + std::to_string(child) + "/comm") == "kestrel-probe\n")
                return child;
    return 0;
}

TEST_F(HelperContract, AnAnswerIsTakenWhateverTheHostDoesWithItsChildren)
{
    // A host that ignores SIGCHLD, and has a thread that collects every child it can.
    std::signal(SIGCHLD, SIG_IGN);
    std::atomic<bool> done{false};
    std::thread collector([&done] {
        while (!done)
            if (waitpid(-1, nullptr, WNOHANG) <= 0)
                usleep(1000);
    });
    const Lines records = fakeQuery("", 5s);
    done = true;
    collector.join();
    std::signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(records, fakeRecord);
    EXPECT_EQ(capture_.of("libKestrel.Isolation"), Lines{});
}

TEST_F(HelperContract, AnAnsweringHelperIsNotOverdueForWhatItStarted)
{
    const auto start = Clock::now();
    EXPECT_EQ(fakeQuery("grandchild", 5s), fakeRecord);
    EXPECT_LT(millisecondsSince(start), 5000);
    EXPECT_EQ(capture_.of("libKestrel.Isolation"), Lines{});
    // What it started, still holding its pipes, was stopped with it.
    const Lines said = capture_.of("fake.probe");
    ASSERT_EQ(said.size(), 1u);
    EXPECT_TRUE(killed(endOf(std::atoi(said[0].substr(said[0].rfind(' ') + 1).c_str()))));
}

TEST_F(HelperContract, AHelperEndsWithItsHost)
{
    kestrel::test::setEnvironment("KESTREL_FAKE_PROBE", "silent");
    const pid_t host = fork();
    if (host == 0) {
        std::bitset<4> status;
        libKestrel::queryAllGPUsIsolated({}, {libKestrel::queryNVidiaGPUs}, status, 1min);
        _exit(0);
    }
    const pid_t helper = helperOf(host);
    kill(host, SIGKILL);
    EXPECT_TRUE(killed(endOf(host)));
    ASSERT_NE(helper, 0);
    // Orphaned, it comes here, and is seen to end.
    EXPECT_TRUE(killed(endOf(helper))) << "the helper outlived its host";
}

// A process that holds this process's next helper at its end, as a driver that
// never returns from the kernel would: traced with a stop at exit, it outlives
// SIGKILL until the tracer lets go by ending (after ten seconds at most). The
// helper's id comes on 'report'.
pid_t holdNextHelper(int report)
{
    const pid_t host = getpid();
    const pid_t tracer = fork();
    if (tracer != 0)
        return tracer;
    const pid_t helper = helperOf(host);
    if (helper == 0 || ptrace(PTRACE_SEIZE, helper, nullptr, PTRACE_O_TRACEEXIT) != 0 ||
        write(report, &helper, sizeof helper) != sizeof helper)
        _exit(1);
    sleep(10);
    _exit(0);
}

TEST_F(HelperContract, AHelperThatWillNotEndIsCollectedLater)
{
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    const pid_t tracer = holdNextHelper(report[1]);
    close(report[1]);
    const auto start = Clock::now();
    EXPECT_EQ(fakeQuery("silent", 1s), Lines{});
    EXPECT_LT(millisecondsSince(start), 1000 + 2000) << "the query waits for no helper that will not end";
    EXPECT_EQ(capture_.of("libKestrel.Isolation"),
              Lines{"4|152 Source nvapi did not end by the deadline and was stopped; its records are left out"});
    pid_t helper = 0;
    EXPECT_EQ(read(report[0], &helper, sizeof helper), static_cast<ssize_t>(sizeof helper));
    close(report[0]);
    EXPECT_EQ(processState(helper), 't') << "held at its end";
    kill(tracer, SIGKILL);
    EXPECT_TRUE(killed(endOf(tracer)));
    // Let go, it ends, and the next query collects it.
    for (int tries = 0; tries < 10000 && processState(helper) != 'Z'; ++tries)
        usleep(1000);
    std::bitset<4> status;
    libKestrel::queryAllGPUsIsolated({}, {}, status);
    EXPECT_EQ(processState(helper), 0);
}
#endif

TEST(Isolation, TheHelpersContractHoldsWhateverTheHelperOrItsHostDoes)
{
    const kestrel::test::TestCopy copy(fs::u8path(kestrel::test::temporaryPath("contract")), "fake_kestrel_probe");
    const auto runs = copy.runEach("HelperContract.*");
    EXPECT_GE(runs.count, 4);
    EXPECT_EQ(runs.failures, "");
#if defined(_WIN32)
    // From a folder whose path is longer than MAX_PATH.
    const kestrel::test::TestCopy deep(fs::u8path(kestrel::test::temporaryPath(std::string(120, 'd') + "\\" +
                                                                                std::string(120, 'e'))),
                                       "fake_kestrel_probe");
    const auto deepRuns = deep.runEach("HelperContract.WhatAVendorPrintsStaysOutOfTheAnswer");
    EXPECT_EQ(deepRuns.count, 1);
    EXPECT_EQ(deepRuns.failures, "");
#endif
}

} // namespace
