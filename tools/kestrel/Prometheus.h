#pragma once

#include <string>

#include <libKestrel/Session.h>

namespace kestrel {

// A session's snapshot in Prometheus's text exposition format: one family per
// GPU property in base units (degrees Celsius, bytes, hertz, watts, joules,
// ratios), every GPU series labelled with its PCI location and its UUID where
// known, a 0/1 series per clock event reason, whether each GPU answered, the
// sources' state and restarts, and when the update was and how long it took. A
// property a GPU does not report has no sample.
std::string prometheusExposition(const libKestrel::Session::Snapshot& snapshot);
// The session's last snapshot, so.
std::string prometheusExposition(const libKestrel::Session& session);

} // namespace kestrel
