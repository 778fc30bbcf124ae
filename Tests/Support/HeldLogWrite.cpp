#include "Support/HeldLogWrite.h"

#include <utility>

#include "Support/EventWait.h"

namespace support {

HeldLogWrite::HeldLogWrite() {
  calls.before("write", [this] {
    _isHeld = true;
    _released.get_future().wait_for(kPatience);
  });
}

HeldLogWrite::~HeldLogWrite() { release(); }

bool HeldLogWrite::waitUntilHeld() const {
  return waitFor([this] { return _isHeld.load(); });
}

void HeldLogWrite::release() {
  if (!std::exchange(_isReleased, true)) _released.set_value();
}

}  // namespace support
