#include "Data Channel Internal/ZPICloseDescriptor.h"

#include <unistd.h>

#include <cerrno>

bool ZPICloseDescriptor(int32_t descriptor, ZPKErrorPtr* error, const ZPIFailureSite& site) {
  if (::close(descriptor) != -1) return true;
  const int number = errno;
  ZPKReportFailure(error, kZPICommunicationDomain, 4, site, "Error closing port - %s(%d)",
                   ZPIErrorText(number), number);
  return false;
}
