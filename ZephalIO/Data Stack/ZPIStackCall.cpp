#include "Data Stack/ZPIStackCall.h"

bool ZPIStackCall::refuse(int code, const char* message) const {
  ZPKReportFailure(_error, _domain, code, _site, message);
  return true;
}
