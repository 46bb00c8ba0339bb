#include "libKestrel/internal/isolation/ChildProcess.h"

#include <cstdio>
#include <memory>

#include "libKestrel/internal/isolation/Process.h"
#include "libKestrel/internal/isolation/ProbeFormat.h"

namespace libKestrel::isolation {
namespace {

struct Child {
    explicit Child(const std::vector<std::string>& command) : process(command, end.problem)
    {
        finished = !end.problem.empty();
    }
    ChildEnd end; // before 'process', which fills its 'problem'
    Process process;
    bool stopping = false; // stopped, its end not seen yet
    bool finished = false;
};

void stop(Child& child, ChildEnd::How how)
{
    child.end.how = how;
    child.stopping = true;
    child.process.closeAnswer();
    child.process.kill();
}

// Takes what the child wrote and, once it has ended, its end.
void advance(Child& child, const AnswerRules& rules)
{
    // Looked at before reading: all it wrote before its end is in the pipe then.
    const auto end = child.process.ended();
    if (child.process.reading()) {
        const bool open = child.process.read(child.end.answer, rules.most + 1);
        if (child.end.answer.size() > rules.most)
            stop(child, ChildEnd::How::tooLong);
        else if (!open || end || rules.complete(child.end.answer))
            child.process.closeAnswer();
    }
    if (!end)
        return;
    if (!child.stopping) {
        child.end.how = !end->known ? ChildEnd::How::unknown
                         : end->crashed ? ChildEnd::How::crashed
                                        : ChildEnd::How::exited;
        child.end.code = end->code;
    }
    child.finished = true;
}

} // namespace

Clock::time_point deadlineAfter(std::chrono::milliseconds deadline)
{
    const auto now = Clock::now();
    if (deadline <= deadline.zero())
        return now;
    const auto room = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::time_point::max() - now);
    return deadline >= room ? Clock::time_point::max() : now + deadline;
}

std::string describe(const ChildEnd& end, const std::string& problem, const char* overdue)
{
    switch (end.how) {
    case ChildEnd::How::notStarted:
        return "could not be started: " + end.problem;
    case ChildEnd::How::overdue:
        return overdue;
    case ChildEnd::How::tooLong:
        return "answered more than " + std::to_string(probe::mostAnswer) + " bytes and was stopped";
    case ChildEnd::How::crashed: {
#if defined(_WIN32)
        char code[16];
        std::snprintf(code, sizeof code, "0x%08lx", static_cast<unsigned long>(end.code));
        return std::string("crashed with exception ") + code;
#else
        return "crashed with signal " + std::to_string(end.code);
#endif
    }
    case ChildEnd::How::exited:
        if (end.code != 0)
            return "ended with exit code " + std::to_string(end.code);
        [[fallthrough]];
    case ChildEnd::How::unknown:
        return "gave output that does not parse: " + problem;
    }
    return problem;
}

std::vector<ChildEnd> runChildren(const std::vector<std::vector<std::string>>& commands,
                                  std::chrono::milliseconds deadline, const AnswerRules& rules)
{
    Process::collectAbandoned();
    Clock::time_point until = deadlineAfter(deadline);
    bool late = false; // past the deadline, the children still running stopped
    std::vector<std::unique_ptr<Child>> children;
    for (const auto& command : commands)
        children.push_back(std::make_unique<Child>(command));
    for (;;) {
        std::vector<Process*> running;
        for (auto& child : children) {
            if (!child->finished)
                advance(*child, rules);
            if (!child->finished)
                running.push_back(&child->process);
        }
        if (running.empty())
            break;
        if (Clock::now() < until) {
            Process::waitForAny(running, until);
            continue;
        }
        for (auto& child : children) {
            if (child->finished)
                continue;
            if (late) {
                child->process.abandon();
                child->finished = true;
            } else if (!child->stopping) {
                stop(*child, ChildEnd::How::overdue);
            }
        }
        if (late)
            break;
        late = true;
        until = Clock::now() + stopMargin;
    }
    std::vector<ChildEnd> ends;
    for (auto& child : children)
        ends.push_back(std::move(child->end));
    return ends;
}

} // namespace libKestrel::isolation
