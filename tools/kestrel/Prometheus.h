#pragma once

#include <string>

#include <libKestrel/Session.h>

namespace kestrel {

// The session's last snapshot in Prometheus's text exposition format: one family
// per GPU property in base units (degrees Celsius, bytes, hertz, ratios), every
// GPU series labelled with its PCI location and its UUID where known, and the
// sources' state and the last update's duration. A property a GPU does not
// report has no sample.
std::string prometheusExposition(const libKestrel::Session& session);

} // namespace kestrel
