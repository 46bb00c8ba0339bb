#include "libKestrel/internal/session/RemoteSource.h"

#include <algorithm>

#include "libKestrel/GPU.h"
#include "libKestrel/internal/Logging.h"
#include "libKestrel/internal/isolation/ChildProcess.h"
#include "libKestrel/internal/isolation/HelperProgram.h"
#include "libKestrel/internal/isolation/LogForwarding.h"
#include "libKestrel/internal/isolation/Process.h"
#include "tova/LogFactory.h"

namespace libKestrel::session {
namespace {

using isolation::ChildEnd;
using logging::log;
using logging::Priority;
using Clock = RemoteSource::Clock;

logging::LogSite site("libKestrel.Session", "libKestrel/src/session/RemoteSource.cpp");

// The longest back-off, in first back-offs.
constexpr int longestBackOff = 60;

// Waits a moment at most for a helper to end, and collects it if it did.
bool endsSoon(isolation::Process& helper)
{
    const auto until = Clock::now() + isolation::stopMargin;
    while (!helper.ended()) {
        if (Clock::now() >= until)
            return false;
        isolation::Process::waitForAny({&helper}, until);
    }
    return true;
}

// Stops a helper; one that does not end (stuck in a driver) is collected later.
void stop(std::unique_ptr<isolation::Process>& helper)
{
    if (!helper)
        return;
    helper->kill();
    endsSoon(*helper);
    helper.reset();
}

std::string level() { return std::to_string(static_cast<int>(tova::LogFactory::getPriority())); }

} // namespace

// What the helper's last refresh answered, where the readers of one
// enumeration read.
struct RemoteSource::Answered {
    bool reached = false;
    std::vector<std::shared_ptr<IGPU>> values; // by record; null where nothing was read
};

RemoteSource::RemoteSource(const OwnSource& source, std::chrono::milliseconds firstBackOff)
    : source_(source), firstBackOff_(firstBackOff)
{
}

RemoteSource::~RemoteSource()
{
    if (!helper_)
        return;
    // Without requests it releases its vendor and ends by itself.
    helper_->closeRequests();
    if (!endsSoon(*helper_))
        stop(helper_);
}

bool RemoteSource::due() const { return down_ && !helper_ && Clock::now() >= retry_; }

void RemoteSource::askEnumeration() { ask("rescan " + level()); }

void RemoteSource::askReadings(const std::string& quiet) { ask("refresh " + level() + " " + quiet); }

std::optional<RemoteSource::Enumeration> RemoteSource::enumeration(Clock::time_point until)
{
    if (auto output = answer(until)) {
        last_ = std::move(output);
        ++generation_;
        return fromAnswer(*last_);
    }
    if (!last_)
        return std::nullopt;
    // The GPUs as the helper last enumerated them, without the readings of then.
    probe::Output stale = *last_;
    for (auto& record : stale.records) {
        auto gpu = std::make_shared<GPU>(static_cast<const GPU&>(*record));
        clearReadings(*gpu);
        record = std::move(gpu);
    }
    return fromAnswer(stale);
}

void RemoteSource::takeReadings(Clock::time_point until)
{
    const auto output = answer(until);
    if (!answered_)
        return;
    answered_->reached = output && output->reached.value_or(false);
    std::fill(answered_->values.begin(), answered_->values.end(), nullptr);
    if (!output)
        return;
    for (const auto& [place, readings] : output->readings)
        if (place < answered_->values.size())
            answered_->values[place] = readings;
}

RemoteSource::Enumeration RemoteSource::fromAnswer(const probe::Output& answer)
{
    Enumeration enumerated;
    enumerated.records = answer.records;
    enumerated.status = answer.status;
    enumerated.generation = generation_;
    if (!source_.live)
        return enumerated;
    // A buffer of its own: a helper that failed left nothing in it for these readers.
    const auto answered = std::make_shared<Answered>();
    answered->values.resize(answer.records.size());
    LiveSource live;
    if (answer.open)
        live.vendor = answered;
    live.around = [answered](const std::function<void()>& reads) {
        if (answered->reached)
            reads();
        return answered->reached;
    };
    for (std::size_t i = 0; i < answer.records.size(); ++i) {
        Reader read;
        if (i < answer.readers.size() && answer.readers[i])
            read = [answered, i](GPU& gpu) {
                if (const auto& values = answered->values[i])
                    libKestrel::takeReadings(gpu, static_cast<const GPU&>(*values));
            };
        live.gpus.push_back({std::static_pointer_cast<GPU>(answer.records[i]), std::move(read)});
    }
    enumerated.live = std::move(live);
    answered_ = answered;
    return enumerated;
}

bool RemoteSource::ask(const std::string& request)
{
    isolation::Process::collectAbandoned();
    asked_ = false;
    if (!helper_) {
        if (down_ && Clock::now() < retry_)
            return false;
        const isolation::HelperProgram& program = isolation::helperProgram();
        if (!program.program || !isolation::Process::isProgram(program.program->u8string())) {
            fail("could not be started: the helper program kestrel-probe is not beside the library in " +
                 program.folder.u8string());
            return false;
        }
        std::string problem;
        helper_ = std::make_unique<isolation::Process>(
            std::vector<std::string>{program.program->u8string(), source_.name, "--log-level", level()}, problem,
            true);
        restarts_ += started_ ? 1 : 0;
        started_ = true;
        if (!problem.empty()) {
            helper_.reset();
            fail(isolation::describe({ChildEnd::How::notStarted, 0, {}, problem}, {}));
            return false;
        }
    }
    if (!helper_->request(request + "\n")) {
        fail("no longer takes requests");
        return false;
    }
    asked_ = true;
    return true;
}

std::optional<probe::Output> RemoteSource::answer(Clock::time_point until)
{
    if (!asked_ || !helper_)
        return std::nullopt;
    asked_ = false;
    ChildEnd end;
    end.how = ChildEnd::How::overdue;
    for (;;) {
        // Looked at before reading: all it wrote before an end is in the pipe then.
        const auto ended = helper_->ended();
        helper_->read(end.answer, probe::mostAnswer + 1);
        if (end.answer.size() > probe::mostAnswer) {
            end.how = ChildEnd::How::tooLong;
            break;
        }
        if (probe::complete(end.answer)) {
            std::string problem;
            probe::Output output = probe::parse(end.answer, problem);
            for (const probe::LogLine& line : output.logs)
                isolation::forward(line);
            if (!problem.empty()) {
                fail(isolation::describe({ChildEnd::How::exited, 0, {}, {}}, problem));
                return std::nullopt;
            }
            if (down_)
                log(site, Priority::WARNING, "61 ", "Source ", source_.name,
                    "'s helper was started again and answers; its readings are back");
            down_ = false;
            backOff_ = {};
            return output;
        }
        if (ended) {
            end.how = !ended->known ? ChildEnd::How::unknown
                      : ended->crashed ? ChildEnd::How::crashed
                                       : ChildEnd::How::exited;
            end.code = ended->code;
            break;
        }
        if (Clock::now() >= until)
            break;
        isolation::Process::waitForAny({helper_.get()}, until);
    }
    // What it said before it failed still reaches the host.
    std::string problem;
    for (const probe::LogLine& line : probe::parse(end.answer, problem).logs)
        isolation::forward(line);
    fail(isolation::describe(end, problem, "did not answer by the deadline and was stopped"));
    return std::nullopt;
}

void RemoteSource::fail(const std::string& what)
{
    stop(helper_);
    asked_ = false;
    backOff_ = std::clamp<Clock::duration>(backOff_ * 2, firstBackOff_, firstBackOff_ * longestBackOff);
    retry_ = Clock::now() + backOff_;
    // Said once when the source goes down; a helper started again that fails
    // too is only traced.
    if (!down_)
        log(site, Priority::CRITICAL, "60 ", "Source ", source_.name, "'s helper ", what,
            "; its readings are left out until it answers again");
    else
        log(site, Priority::TRACE, "62 ", "Source ", source_.name, "'s helper, started again, ", what);
    down_ = true;
}

} // namespace libKestrel::session
