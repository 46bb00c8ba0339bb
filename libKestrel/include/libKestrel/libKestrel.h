#pragma once

// Everything a host needs: the GPU record, the queries that fill it, and the
// device classes.
#include "libKestrel/ADLWrapper.h"
#include "libKestrel/AMDGPU.h"
#include "libKestrel/ClockEventReasons.h"
#include "libKestrel/Export.h"
#include "libKestrel/GPU.h"
#include "libKestrel/GPUProperties.h"
#include "libKestrel/IGPU.h"
#include "libKestrel/Isolated.h"
#include "libKestrel/NVIDIAGPU.h"
#include "libKestrel/Optimus.h"
#include "libKestrel/Query.h"
#include "libKestrel/Session.h"
#include "libKestrel/Sources.h"
#include "pci/PciLocation.h"
