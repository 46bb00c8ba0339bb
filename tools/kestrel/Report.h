#pragma once

#include <bitset>
#include <memory>
#include <string>
#include <vector>

#include <libKestrel/IGPU.h>

namespace kestrel {

using Records = std::vector<std::shared_ptr<libKestrel::IGPU>>;

// A readable report: per GPU its PCI location and name as a heading, then the
// properties that are present, with their units.
std::string textReport(const Records& gpus, const std::bitset<4>& status);

// One JSON document: every property of every GPU by its getter's name, null
// when absent, the PCI location as text. 'oneLine' writes it on a single line,
// so that repeated reports read as JSON Lines.
std::string jsonReport(const Records& gpus, const std::bitset<4>& status, bool oneLine = false);

} // namespace kestrel
