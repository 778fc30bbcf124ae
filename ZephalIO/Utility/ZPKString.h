/// @file
/// Text as an object.
#pragma once

#include <string>

#include "Utility/ZPKObject.h"

class ZPKString;
/// An immutable text, shared; may be null.
using ZPKStringPtr = std::shared_ptr<const ZPKString>;

/// Text as an object. It should be UTF-8; other text can be held but not serialized.
class ZPK_EXPORT ZPKString final : public ZPKObject {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// A text, which is copied unless the caller gives it up.
  static ZPKStringPtr init(std::string value);

  ZPKString(Key, std::string value);
  ZPKString(const ZPKString&) = delete;
  ZPKString& operator=(const ZPKString&) = delete;
  ~ZPKString() override;

  /// The text; valid while the object lives.
  const std::string& value() const;

  /// The same bytes, with no regard to Unicode's other ways of writing the same text.
  bool isEqual(const ZPKObject& other) const override;
  /// The text unchanged.
  std::string debugDescription() const override;

 private:
  const std::string _value;

  friend class ZPIObjectPool;
};
