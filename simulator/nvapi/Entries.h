#pragma once

#include <cstddef>

#include "libKestrel/vendor/nvapi.h"

// The NVAPI entry points the simulated driver implements, as nvapi_QueryInterface
// hands them out.
namespace simnvapi {

struct Entry {
    libKestrel::nvapi::NvU32 id;
    const char* name;
    void* function;
};

extern const Entry entries[];
extern const std::size_t entryCount;

} // namespace simnvapi
