#pragma once

#include <cstdint>

#include "Utility/ZPKReportFailure.h"

/// close(2), with its failure reported at `site` with code 4. Nothing is flushed, drained or
/// restored first.
bool ZPICloseDescriptor(int32_t descriptor, ZPKErrorPtr* error, const ZPIFailureSite& site);
