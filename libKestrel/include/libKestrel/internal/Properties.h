#pragma once

#include "libKestrel/GPUProperties.h"

// Every property a record holds, of every release's list, in record order: what
// the library itself walks (merging, the helper's format, tests).
#define LIBKESTREL_ALL_GPU_PROPERTIES(X) LIBKESTREL_GPU_PROPERTIES(X) LIBKESTREL_GPU_PROPERTIES_0_2(X)
