#include "Utility/ZPIHeldDescriptor.h"

ZPIHeldDescriptor::ZPIHeldDescriptor(int32_t descriptor) { hold(descriptor); }

ZPIHeldDescriptor::~ZPIHeldDescriptor() {
  for (Place* place = _newest.load(); place != &_first;) {
    Place* const older = place->older;
    delete place;
    place = older;
  }
}

bool ZPIHeldDescriptor::isHeld() const {
  const Place* const place = _current.load(std::memory_order_acquire);
  return (place->state.load(std::memory_order_acquire) & kHeld) != 0;
}

void ZPIHeldDescriptor::hold(int32_t descriptor) {
  if (descriptor < 0) return;
  Place* const place = takeFreePlace();
  place->descriptor = descriptor;
  place->state.store(kHeld, std::memory_order_release);
  _current.store(place, std::memory_order_release);
}

ZPIHeldDescriptor::Use ZPIHeldDescriptor::use() {
  Place* const place = _current.load(std::memory_order_acquire);
  uint32_t state = place->state.load(std::memory_order_relaxed);
  while ((state & kHeld) != 0) {
    if (place->state.compare_exchange_weak(state, state + 1, std::memory_order_acquire,
                                           std::memory_order_relaxed)) {
      return Use(place);
    }
  }
  return Use();
}

// There is usually only one place. Another one is created only if a thread is still in a call on
// the descriptor that was given up.
ZPIHeldDescriptor::Place* ZPIHeldDescriptor::takeFreePlace() {
  for (Place* place = _newest.load(std::memory_order_acquire); place != nullptr;
       place = place->older) {
    uint32_t free = 0;
    if (place->state.compare_exchange_strong(free, kTaken, std::memory_order_acquire,
                                             std::memory_order_relaxed)) {
      return place;
    }
  }
  auto* const added = new Place;
  added->state.store(kTaken, std::memory_order_relaxed);
  added->older = _newest.load(std::memory_order_relaxed);
  while (!_newest.compare_exchange_weak(added->older, added, std::memory_order_release,
                                        std::memory_order_relaxed)) {
  }
  return added;
}

bool ZPIHeldDescriptor::Use::isHeld() const {
  return (_place->state.load(std::memory_order_relaxed) & kHeld) != 0;
}

bool ZPIHeldDescriptor::Use::isShared() const {
  return (_place->state.load(std::memory_order_relaxed) & ~kHeld) > 1;
}

bool ZPIHeldDescriptor::Use::giveUp() {
  return (_place->state.fetch_and(~kHeld, std::memory_order_acq_rel) & kHeld) != 0;
}

bool ZPIHeldDescriptor::Use::leave() {
  return _place->state.fetch_sub(1, std::memory_order_acq_rel) == 1;
}
