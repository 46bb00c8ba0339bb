#pragma once

#include <functional>
#include <mutex>

// ADL's first interface keeps one state per process: ADL_Main_Control_Create
// starts it for the whole process and ADL_Main_Control_Destroy ends it for every
// client, whoever started it. The library's users of it (the AMD source's first
// pass, a session reading a driver without the ADL2 readings, the device
// classes' ADL table) share one control through the count kept here, so none
// of them ends the control another still uses.
namespace libKestrel::adlcontrol {

// The first interface is not safe to call from two threads at once unless it
// was started locked, and the library cannot know who started it: every call
// the library makes into it, and every start and end of the control, runs
// while this lock is held.
std::unique_lock<std::mutex> lockCalls();

// Takes a share of the process's control, starting it through 'start' when no
// share is held. False, with nothing taken, when 'start' says it did not start
// (an exception from 'start' goes on to the caller, with nothing taken).
bool acquire(const std::unique_lock<std::mutex>& calls, const std::function<bool()>& start);

// Gives a share back; the last one ends the control through 'end'.
void release(const std::unique_lock<std::mutex>& calls, const std::function<void()>& end);

} // namespace libKestrel::adlcontrol
