#include "ZephalConsole/Internal/Deadline.h"

#include <cmath>
#include <limits>

namespace zephal::internal {

int Deadline::milliseconds() const {
  const double milliseconds = std::ceil(left().count() * 1000.0);
  constexpr double kLongest = std::numeric_limits<int>::max();
  return static_cast<int>(std::min(milliseconds, kLongest));
}

}  // namespace zephal::internal
