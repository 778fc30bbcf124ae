/// @file
/// The serializer that the library provides.
#pragma once

#include "Data Channel/ZPKDataSerializer.h"

class ZPKDataDefaultSerializer;
/// A shared ZPKDataDefaultSerializer.
using ZPKDataDefaultSerializerPtr = std::shared_ptr<ZPKDataDefaultSerializer>;

/// The default serializer of a ZPKDataChannelManager: a keyed archive in CBOR (RFC 8949), which
/// Documentation/archive-format.md describes.
///
/// It has no state: all operations may run on any thread at the same time. A failure is a null
/// result and one log line at level 0.
///
///     ZPKDataDefaultSerializer serializer;
///     const auto message = ZPKDictionary::init({{"name", "dut-7"}, {"slot", 3}});
///     const ZPKDataPtr data = serializer.serialize(message);
///     const auto back = ZPKObjectCast<ZPKDictionary>(serializer.deserialize(data));
class ZPK_EXPORT ZPKDataDefaultSerializer final : public ZPKDataSerializer {
 public:
  /// A shared serializer, as a ZPKDataChannelManager takes it.
  static ZPKDataDefaultSerializerPtr init();

  ZPKDataDefaultSerializer();
  ~ZPKDataDefaultSerializer() override;

  /// The archive of an object. It can write more than deserialize reads: a ZPKArray and null can be
  /// written, but deserialize rejects an archive that contains one. If an object contains the same
  /// part in several places, the part is written in each place.
  ///
  /// Null, and the line "Error in serialization (null)", for text that is not UTF-8 and for an
  /// object of any other class, even if only a part of the object is affected.
  ZPKDataPtr serialize(const ZPKObjectPtr& object) override;

  /// The object of an archive, equal to the one that was written, with every number of its original
  /// kind. The result contains copies of the bytes it needs from `data`.
  ///
  /// Strict: it accepts exactly what serialize writes, to the bit, so every archive stands for one
  /// object and every object has one archive. Damaged and hostile bytes do no harm: it does not
  /// trust a length before it has seen the bytes, nesting has no limit, and it uses no more memory
  /// than a few KiB and 64 times the length of the data, which nested dictionaries with empty keys
  /// come close to.
  ///
  /// Null, and the line "Error in deserialization %@":
  ///
  /// - for empty and null data, and for bytes that are not an archive: the line shows an error of
  ///   the domain "CBOR" that says what is wrong and where;
  /// - for an archive under a different key, or one that contains an object of a class that is not
  ///   one of supportedClasses: the line shows no error.
  ZPKObjectPtr deserialize(const ZPKDataPtr& data) override;

  /// "ZSKeyedArchiver/ZSKeyedUnarchiver".
  std::string formatName() const override;

  /// The classes that deserialize can return: ZPKDictionary, ZPKString, ZPKNumber and ZPKData.
  static const ZPKClassSet& supportedClasses();
};
