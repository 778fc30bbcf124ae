#include "Data Stack/ZPIStackCall.h"

bool ZPIStackCall::report(const char* domain, int code, const ZPIFailureSite& site,
                          const char* message, ZPKErrorPtr* error) {
  ZPKReportFailure(error, domain, code, site, message);
  return true;
}
