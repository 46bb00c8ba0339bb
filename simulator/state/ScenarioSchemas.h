#pragma once

#include <vector>

namespace kestrel::sim {

// The text of every module's scenario-schema.json, embedded by the build.
std::vector<const char*> scenarioSchemas();

} // namespace kestrel::sim
