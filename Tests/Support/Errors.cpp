#include "Support/Errors.h"

namespace support {

ZPKErrorPtr errorWithCode(int code) { return ZPKError::init("test", code, {}); }

ZPKErrorPtr errorFromBelow() {
  static const ZPKErrorPtr error =
      ZPKError::init("below", 42, {{std::string(ZPKErrorDescriptionKey), "from below"}});
  return error;
}

int codeOf(const ZPKErrorPtr& error) { return error == nullptr ? 0 : error->code(); }

std::string descriptionOf(const ZPKErrorPtr& error) {
  return error == nullptr ? std::string() : error->description();
}

}  // namespace support
