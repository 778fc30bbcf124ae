#include "Utility/ZPKError.h"

#include <utility>

ZPKErrorPtr ZPKError::init(std::string domain, int code, UserInfo userInfo) {
  return std::make_shared<const ZPKError>(Key(), std::move(domain), code, std::move(userInfo));
}

ZPKError::ZPKError(Key, std::string domain, int code, UserInfo userInfo)
    : _domain(std::move(domain)), _code(code), _userInfo(std::move(userInfo)) {}

ZPKError::~ZPKError() = default;

const std::string& ZPKError::domain() const { return _domain; }

int ZPKError::code() const { return _code; }

const ZPKError::UserInfo& ZPKError::userInfo() const { return _userInfo; }

std::string ZPKError::description() const { return valueForKey(ZPKErrorDescriptionKey); }

std::string ZPKError::location() const { return valueForKey(ZPKErrorLocationKey); }

std::string ZPKError::debugDescription() const {
  return _domain + " (" + std::to_string(_code) + "): " + description();
}

std::string ZPKError::valueForKey(std::string_view key) const {
  const auto found = _userInfo.find(key);
  return found == _userInfo.end() ? std::string() : found->second;
}
