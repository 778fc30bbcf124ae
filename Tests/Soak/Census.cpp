#include "Soak/Census.h"

#include "Support/OpenDescriptors.h"
#include "Support/ProcessStatus.h"

namespace soak {

Census Census::take(double seconds) {
  const size_t heap = support::allocatedBytes();
  return {seconds, support::processStatus("VmRSS"), heap, support::processStatus("Threads"),
          support::openDescriptors().size()};
}

}  // namespace soak
