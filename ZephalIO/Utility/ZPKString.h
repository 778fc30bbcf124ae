#pragma once

#include <string>

#include "Utility/ZPKObject.h"

class ZPKString;
using ZPKStringPtr = std::shared_ptr<const ZPKString>;

/// Text as an object. It should be UTF-8; other text can be held but not serialized.
class ZPK_EXPORT ZPKString final : public ZPKObject {
  struct Key {
    explicit Key() = default;
  };

 public:
  static ZPKStringPtr init(std::string value);

  ZPKString(Key, std::string value);
  ZPKString(const ZPKString&) = delete;
  ZPKString& operator=(const ZPKString&) = delete;
  ~ZPKString() override;

  /// The text; valid while the object lives.
  const std::string& value() const;

  bool isEqual(const ZPKObject& other) const override;
  /// The text unchanged.
  std::string debugDescription() const override;

 private:
  const std::string _value;
};
