#pragma once

#include <cstdint>

#include "Utility/ZPKReportFailure.h"

/// Calls close(2) and reports a failure at `site`: domain "zephal-communication", code 4. Nothing
/// is flushed, drained or restored first.
bool ZPICloseDescriptor(int32_t descriptor, ZPKErrorPtr* error, const ZPIFailureSite& site);
