#include <cstdint>

#include "common/AllocationCounter.h"
#include "common/Test.h"
#include "libKestrel/internal/Logging.h"
#include "pci/PciLocation.h"

namespace {

using libKestrel::logging::log;
using libKestrel::logging::LogSite;
using libKestrel::logging::Priority;
using libKestrel::logging::shown;
using kestrel::test::LogCapture;

tova::Logger* loggerNamed(const char* name)
{
    tova::Logger* logger = nullptr;
    tova::LogFactory::createLogger(name, logger);
    return logger;
}

// Each of the threshold tests stops a message on its own, and a stopped message
// allocates nothing.
TEST(Logging, EveryThresholdCanStopAMessageBeforeItIsBuilt)
{
    LogCapture capture(Priority::TRACE);
    LogSite site("kestrel.test.Site.File", "tests/kestrel/LoggingTest.cpp");
    const tova::String composed("a composed text that would need the heap to copy");

    const auto attempt = [&](Priority::LOGGER_PRIORITY priority) {
        kestrel::test::startCountingAllocations();
        log(site, priority, "41 ", composed, " and a value ", 123456789, shown(true));
        return kestrel::test::stopCountingAllocations();
    };

    // Passing every test: the message is built and written.
    EXPECT_GT(attempt(Priority::WARNING), 0);
    ASSERT_EQ(capture.lines().size(), 1u);
    capture.clear();

    // 1. The process-wide threshold.
    tova::LogFactory::setPriority(Priority::CRITICAL);
    EXPECT_EQ(attempt(Priority::WARNING), 0);
    tova::LogFactory::setPriority(Priority::TRACE);

    // 3. The logger's own threshold.
    tova::Logger* logger = loggerNamed("kestrel.test.Site.File");
    logger->priority = Priority::CRITICAL;
    EXPECT_EQ(attempt(Priority::WARNING), 0);
    logger->priority = Priority::ALL;

    // 4. The resolved threshold, here inherited from the parent logger.
    tova::Logger* parent = loggerNamed("kestrel.test.Site");
    parent->priority = Priority::CRITICAL;
    EXPECT_EQ(attempt(Priority::WARNING), 0);
    EXPECT_GT(attempt(Priority::CRITICAL), 0) << "a grave message still passes";
    parent->priority = Priority::ALL;

    // Only the grave message above got through.
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].priority, Priority::CRITICAL);

    // Stopped by the process-wide threshold, a site's first message creates no
    // logger, and values that cost work to show (a PCI location's text, a text
    // asked of a driver) are never made.
    tova::LogFactory::setPriority(Priority::CRITICAL);
    LogSite fresh("kestrel.test.Fresh", "tests/kestrel/LoggingTest.cpp");
    bool asked = false;
    kestrel::test::startCountingAllocations();
    log(fresh, Priority::WARNING, "44 ", "at ", pci::PciLocation(1, 2, 3, 0),
        libKestrel::logging::deferred([&asked] {
            asked = true;
            return "a monitor name";
        }));
    EXPECT_EQ(kestrel::test::stopCountingAllocations(), 0);
    EXPECT_FALSE(asked);
}

TEST(Logging, MessageReachesTheSinkAsTagTextAndValues)
{
    LogCapture capture(Priority::TRACE);
    LogSite site("kestrel.test.Text", "tests/kestrel/LoggingTest.cpp");
    log(site, Priority::INFO, "98 ", "Found ", 3, " from vendor query");
    log(site, Priority::TRACE, "119 ", "Dedicated memory (kb): ", shown(std::uint64_t{8388608}));
    log(site, Priority::WARNING, "269 ", "ECC enabled: ", shown(false));
    log(site, Priority::CRITICAL, "171 ", "Failed to retrieve device handle: ", "Insufficient Power");
    log(site, Priority::INFO, "300 ", "Negative reading left out: ", shown(std::int64_t{-5000000000}), " at ",
        pci::PciLocation(0x65, 0, 0, 0), ", named ", libKestrel::logging::deferred([] { return "Left"; }));
    EXPECT_EQ(capture.of("kestrel.test.Text"),
              (std::vector<std::string>{"2|98 Found 3 from vendor query", "1|119 Dedicated memory (kb): 8388608",
                                        "3|269 ECC enabled: false",
                                        "4|171 Failed to retrieve device handle: Insufficient Power",
                                        "2|300 Negative reading left out: -5000000000 at 0000:65:00.0, named Left"}));

    // Two sites of one name share one logger: silencing it silences both.
    LogSite twin("kestrel.test.Text", "elsewhere.cpp");
    loggerNamed("kestrel.test.Text")->priority = Priority::OFF;
    log(twin, Priority::CRITICAL, "1 ", "silenced");
    log(site, Priority::CRITICAL, "2 ", "silenced");
    EXPECT_EQ(capture.of("kestrel.test.Text").size(), 5u);
    loggerNamed("kestrel.test.Text")->priority = Priority::ALL;
}

TEST(Logging, TraceScopesFollowTheTraceThreshold)
{
    LogCapture capture(Priority::INFO);
    LogSite site("kestrel.test.Trace", "src/Traced.cpp");
    {
        kestrel::test::startCountingAllocations();
        auto trace = site.trace("tracedFunction", 12);
        EXPECT_EQ(kestrel::test::stopCountingAllocations(), 0);
    }
    EXPECT_TRUE(capture.lines().empty());

    tova::LogFactory::setPriority(Priority::TRACE);
    {
        auto trace = site.trace("tracedFunction", 12);
        log(site, Priority::TRACE, "13 ", "inside");
    }
    const char* const name = "kestrel.test.Trace";
    EXPECT_EQ(capture.lines(), (kestrel::test::LogLines{{name, 1, "Entering tracedFunction (src/Traced.cpp:12)"},
                                                        {name, 1, "13 inside"}, {name, 1, "Leaving tracedFunction"}}));

    capture.clear();
    loggerNamed("kestrel.test.Trace")->priority = Priority::INFO;
    {
        auto trace = site.trace("tracedFunction", 12);
    }
    EXPECT_TRUE(capture.lines().empty()) << "the logger's own threshold turns tracing off";
    loggerNamed("kestrel.test.Trace")->priority = Priority::ALL;
}

} // namespace
