#pragma once

#include <bitset>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "libKestrel/IGPU.h"
#include "libKestrel/internal/LiveSource.h"
#include "libKestrel/internal/SourceTable.h"
#include "libKestrel/internal/isolation/ProbeFormat.h"

namespace libKestrel::isolation {
class Process;
}

namespace libKestrel::session {

// One of the library's own sources, run for an isolated session in a helper of
// its own (kestrel-probe with a request pipe, ProbeSession.h), which keeps the
// vendor open between requests. A helper that misses a request's deadline,
// ends, or answers what does not parse is stopped and collected, and that is
// said once; the source is down until a helper started again after a back-off
// (the first one given, doubling at each failure up to 60 times it) answers,
// which is said too.
//
// Each request is made in two steps, asking then taking the answer, so that
// several helpers work side by side. On Linux a helper ends with the thread
// that started it: a request made on another thread after that starts it again.
class RemoteSource {
public:
    using Clock = std::chrono::steady_clock;

    // The source as its helper enumerated it: its records and, for a source
    // read through handles, a live source whose readers take what the helper's
    // last refresh answered for them.
    struct Enumeration {
        std::vector<std::shared_ptr<IGPU>> records;
        std::optional<LiveSource> live;
        std::bitset<4> status;
        unsigned long generation = 0; // which of the helper's enumerations it is
    };

    RemoteSource(const OwnSource& source, std::chrono::milliseconds firstBackOff);
    // Lets the helper end by itself (its vendor released), stopping it if it
    // does not promptly.
    ~RemoteSource();
    RemoteSource(const RemoteSource&) = delete;
    RemoteSource& operator=(const RemoteSource&) = delete;

    // Asks for an enumeration, first starting a helper when there is none and
    // the back-off has passed.
    void askEnumeration();
    // The helper's answer, waited for until 'until'; when it fails (or was not
    // asked), the last enumeration it gave, whose readers find nothing to read
    // until a helper enumerates again. Nothing when no helper ever did.
    std::optional<Enumeration> enumeration(Clock::time_point until);

    // Asks for the readings of the last enumeration; 'quiet' holds a '0' or
    // '1' per record, '1' for a GPU whose vendor's lines are held back.
    void askReadings(const std::string& quiet);
    // Takes the answer, waited for until 'until', for the readers to read;
    // when it fails they find nothing, and live.around says the vendor was not
    // reached.
    void takeReadings(Clock::time_point until);

    bool down() const { return down_; }
    // Whether the source is down and its back-off has passed: the next request
    // starts a helper again.
    bool due() const;
    // Which enumeration the helper's readings are of.
    unsigned long generation() const { return generation_; }
    // How often a helper was started again after one failed.
    unsigned long restarts() const { return restarts_; }

private:
    struct Answered;

    bool ask(const std::string& request);
    std::optional<probe::Output> answer(Clock::time_point until);
    void fail(const std::string& what);
    Enumeration fromAnswer(const probe::Output& answer);

    const OwnSource& source_;
    const Clock::duration firstBackOff_;
    std::unique_ptr<isolation::Process> helper_;
    bool asked_ = false;   // a request is out
    bool started_ = false; // a helper was ever started
    bool down_ = false;    // the last helper failed, and none has answered since
    unsigned long restarts_ = 0;
    unsigned long generation_ = 0;
    Clock::duration backOff_{};
    Clock::time_point retry_{}; // when a helper may be started again
    std::optional<probe::Output> last_;  // the last enumeration a helper gave
    std::shared_ptr<Answered> answered_; // what the last refresh answered, for the readers
};

} // namespace libKestrel::session
