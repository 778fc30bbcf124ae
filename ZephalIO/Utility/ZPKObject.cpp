#include "Utility/ZPKObject.h"

ZPKObject::~ZPKObject() = default;

bool ZPKObject::isEqual(const ZPKObject& other) const { return this == &other; }

std::string ZPKObject::debugDescription() const { return "<object>"; }

bool ZPKObjectsAreEqual(const ZPKObjectPtr& left, const ZPKObjectPtr& right) {
  if (left == nullptr || right == nullptr) return left == right;
  return left->isEqual(*right);
}
