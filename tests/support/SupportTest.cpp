#include <algorithm>
#include <set>
#include <thread>

#include "common/Test.h"
#include "pci/PciLocation.h"
#include "tova/LogFactory.h"
#include "tova/Logger.h"
#include "tova/LoggerStream.h"

namespace {

using Priority = tova::LoggerPriority;

// Equality of every field is held by the record's isSameGPU test.
TEST(PciLocation, TextWithAndWithoutTheDomain)
{
    EXPECT_EQ(pci::PciLocation(0x65, 0x1f, 0, 0).toString(true).str(), "0000:65:1f.0");
    EXPECT_EQ(pci::PciLocation(0xff, 0x1f, 7, 0x10000).toString(true).str(), "10000:ff:1f.7");
    EXPECT_EQ(pci::PciLocation(0x65, 0x1f, 0, 0).toString(false).str(), "65:1f.0");

    // A location whose source cannot tell the domain reads, and compares, as domain 0.
    const auto withoutDomain = pci::PciLocation::withoutDomain(0x65, 0x1f, 0);
    EXPECT_FALSE(withoutDomain.domainKnown);
    EXPECT_TRUE(pci::PciLocation(0x65, 0x1f, 0, 0).domainKnown);
    EXPECT_EQ(withoutDomain.toString(true).str(), "0000:65:1f.0");
    EXPECT_EQ(withoutDomain, pci::PciLocation(0x65, 0x1f, 0, 0));
    EXPECT_NE(withoutDomain, pci::PciLocation(0x65, 0x1f, 0, 2));
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

TEST(Logger, ConcurrentMessagesArriveWhole)
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

} // namespace
