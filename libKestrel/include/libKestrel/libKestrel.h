#pragma once

// Everything a host needs: the GPU record and the queries that fill it.
#include "libKestrel/Export.h"
#include "libKestrel/GPU.h"
#include "libKestrel/GPUProperties.h"
#include "libKestrel/IGPU.h"
#include "libKestrel/Optimus.h"
#include "libKestrel/Query.h"
#include "libKestrel/Sources.h"
#include "pci/PciLocation.h"
