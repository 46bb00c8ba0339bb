#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/LogCapture.h"
#include "common/Paths.h"
#include "pci/PciLocation.h"
#include "tova/LogFactory.h"
#include "tova/Logger.h"
#include "tova/LoggerStream.h"
#include "tova/System.h"
#include "tova/TovaValue.h"
#include "tova/TraceLogger.h"

namespace {

using Priority = tova::LoggerPriority;

TEST(PciLocation, EqualOnlyWhenAllFourFieldsAreEqual)
{
    const pci::PciLocation base(0x65, 0x1f, 0, 0);
    EXPECT_EQ(base, pci::PciLocation(0x65, 0x1f, 0, 0));
    EXPECT_NE(base, pci::PciLocation(0x66, 0x1f, 0, 0));
    EXPECT_NE(base, pci::PciLocation(0x65, 0x1e, 0, 0));
    EXPECT_NE(base, pci::PciLocation(0x65, 0x1f, 1, 0));
    EXPECT_NE(base, pci::PciLocation(0x65, 0x1f, 0, 1));
    EXPECT_FALSE(base != pci::PciLocation(0x65, 0x1f, 0, 0));
    EXPECT_EQ(pci::PciLocation(), pci::PciLocation(0, 0, 0, 0));

    EXPECT_EQ(base.toString(true).str(), "0000:65:1f.0");
    EXPECT_EQ(pci::PciLocation(0xff, 0x1f, 7, 0x10000).toString(true).str(), "10000:ff:1f.7");
    EXPECT_EQ(base.toString(false).str(), "65:1f.0");
}

TEST(LogFactory, OneNameGivesOneLoggerAcrossThreads)
{
    std::vector<tova::Logger*> found(8, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < found.size(); ++i)
        threads.emplace_back([&found, i] { tova::LogFactory::createLogger("kestrel.test.Threads", found[i]); });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(std::set<tova::Logger*>(found.begin(), found.end()).size(), 1u);
    ASSERT_NE(found[0], nullptr);
    EXPECT_EQ(found[0]->name(), "kestrel.test.Threads");

    tova::Logger* again = nullptr;
    tova::LogFactory::createLogger("kestrel.test.Threads", again);
    EXPECT_EQ(again, found[0]);
}

TEST(Logger, ThresholdsResolveThroughAncestors)
{
    tova::Logger* child = nullptr;
    tova::Logger* parent = nullptr;
    tova::LogFactory::createLogger("kestrel.test.Tree.Leaf", child);
    tova::LogFactory::createLogger("kestrel.test.Tree", parent);
    EXPECT_EQ(child->parent(), parent);
    EXPECT_EQ(child->resolvePriority(), Priority::ALL);

    parent->priority = Priority::WARNING;
    EXPECT_EQ(child->resolvePriority(), Priority::WARNING);
    child->priority = Priority::INFO;
    EXPECT_EQ(child->resolvePriority(), Priority::INFO);
    child->priority = Priority::ALL;
    parent->priority = Priority::ALL;
}

TEST(Logger, ConcurrentMessagesArriveWholeAndTraceScopesFrameTheirFunction)
{
    kestrel::test::LogCapture capture;
    tova::Logger* logger = nullptr;
    tova::LogFactory::createLogger("kestrel.test.Concurrent", logger);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([logger, t] {
            for (int i = 0; i < 200; ++i) {
                tova::LoggerStream stream;
                stream + "thread " << t << " message " << i;
                logger->log(Priority::INFO, stream);
            }
        });
    for (auto& thread : threads)
        thread.join();
    const auto lines = capture.of("kestrel.test.Concurrent");
    EXPECT_EQ(lines.size(), 800u);
    EXPECT_EQ(capture.count("thread 3 message "), 200u);

    capture.clear();
    {
        tova::TraceLogger trace(logger, "doWork", "work.cpp", 17);
        tova::TraceLogger silent(nullptr, "ignored", "work.cpp", 18);
    }
    EXPECT_EQ(capture.of("kestrel.test.Concurrent"),
              (std::vector<std::string>{"1|Entering doWork (work.cpp:17)", "1|Leaving doWork"}));
}

TEST(LoggerStream, AppendsTextsAndEveryNumberType)
{
    tova::LoggerStream stream;
    stream + "12 " + tova::String("value: ") << -3 << " " << 4u << " " << 5ul << " " << -6ll << " "
                                             << 18446744073709551615ull << " " << static_cast<const char*>(nullptr);
    EXPECT_EQ(stream.str(), "12 value: -3 4 5 -6 18446744073709551615 (null)");

    const auto shown = [](auto value) { return tova::TovaValue(value).toString(tova::TovaValue::nilValue()).str(); };
    EXPECT_EQ(shown(true), "true");
    EXPECT_EQ(shown(false), "false");
    EXPECT_EQ(shown(-42), "-42");
    EXPECT_EQ(shown(4294967295u), "4294967295");
    EXPECT_EQ(shown(18446744073709551615ull), "18446744073709551615");
}

TEST(LogFactory, DefaultSinkWritesOneLinePerMessageToStandardError)
{
    tova::Logger* logger = nullptr;
    tova::LogFactory::createLogger("kestrel.test.Stderr", logger);
    tova::LoggerStream stream;
    stream + "7 " + "Something failed: " << 3;
    testing::internal::CaptureStderr();
    logger->log(Priority::WARNING, stream);
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_EQ(written, "kestrel.test.Stderr [WARNING] 7 Something failed: 3\n");
}

// A host's sink may log through a logger of its own and may replace itself;
// neither waits on the line it is handling.
TEST(LogFactory, ASinkThatLogsOrReplacesItselfGoesOn)
{
    tova::Logger* logger = nullptr;
    tova::LogFactory::createLogger("kestrel.test.Sink", logger);
    const auto line = [logger](const char* text) {
        tova::LoggerStream stream;
        stream + text;
        logger->log(Priority::WARNING, stream);
    };
    std::vector<std::string> first;
    std::vector<std::string> second;
    tova::LogFactory::setSink([&](const std::string&, Priority::LOGGER_PRIORITY, const std::string& text) {
        first.push_back(text);
        line("said by the sink");
        tova::LogFactory::setSink([&second](const std::string&, Priority::LOGGER_PRIORITY, const std::string& text) {
            second.push_back(text);
        });
        first.push_back("still running");
    });
    testing::internal::CaptureStderr();
    line("one");
    line("two");
    const std::string written = testing::internal::GetCapturedStderr();
    tova::LogFactory::setSink(nullptr);
    EXPECT_EQ(first, (std::vector<std::string>{"one", "still running"}));
    EXPECT_EQ(second, std::vector<std::string>{"two"});
    EXPECT_EQ(written, "kestrel.test.Sink [WARNING] said by the sink\n");
}

TEST(System, ReportsFilesAndEnvironment)
{
    EXPECT_TRUE(tova::System::exists(kestrel::test::executableDirectory()));
    EXPECT_FALSE(tova::System::exists(kestrel::test::executableDirectory() + "no-such-file.txt"));
    EXPECT_FALSE(tova::System::exists(""));

    const std::string file = kestrel::test::temporaryPath("exists.txt");
    std::ofstream(file) << "x";
    EXPECT_TRUE(tova::System::exists(file));
    std::remove(file.c_str());

#if defined(_WIN32)
    _putenv("KESTREL_TEST_VARIABLE=C:\\Program Files");
#else
    setenv("KESTREL_TEST_VARIABLE", "C:\\Program Files", 1);
#endif
    EXPECT_EQ(tova::System::getEnvironmentVariable("KESTREL_TEST_VARIABLE").str(), "C:\\Program Files");
    EXPECT_TRUE(tova::System::getEnvironmentVariable("KESTREL_TEST_UNSET_VARIABLE").empty());
}

} // namespace
