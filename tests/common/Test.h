#pragma once

// What most tests include: GoogleTest, the library's sources, simulated modules
// and machines, and the helpers that run a source and read what it logged.
#include <bitset>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/LogCapture.h"
#include "common/Modules.h"
#include "common/Simulator.h"
#include "common/Sources.h"
#include "libKestrel/Sources.h"
