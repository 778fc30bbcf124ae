#pragma once

#include "Data Channel/ZPKDataSerializer.h"

class ZPKDataDefaultSerializer;
using ZPKDataDefaultSerializerPtr = std::shared_ptr<ZPKDataDefaultSerializer>;

/// The serializer of a ZPKDataChannelManager that is given no other: a keyed archive in CBOR (RFC
/// 8949), which Documentation/archive-format.md describes.
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
  static ZPKDataDefaultSerializerPtr init();

  ZPKDataDefaultSerializer();
  ~ZPKDataDefaultSerializer() override;

  /// The archive of an object. Writing is wider than reading: a ZPKArray, and null, can be written,
  /// but an archive that holds one is refused by deserialize. A part that is held in several places
  /// is written in each.
  ///
  /// Null, and the line "Error in serialization (null)", for text that is not UTF-8 and for an
  /// object of any other class, also where they are only a part of the object.
  ZPKDataPtr serialize(const ZPKObjectPtr& object) override;

  /// The object of an archive, equal to the one that was written, every number of the kind it was.
  /// The result holds copies of what it needs of `data`.
  ///
  /// Strict: it takes exactly what serialize writes, to the bit, so that every archive stands for
  /// one object and every object has one archive. Damaged and hostile bytes do no harm: no length
  /// is believed before its bytes have been seen, nesting has no limit, and the memory that is
  /// taken stays within 64 times the length of the data, which empty keys of nested dictionaries
  /// come near to, and a few KiB.
  ///
  /// Null, and the line "Error in deserialization %@":
  ///
  /// - for bytes that are no archive, for empty and for null data, the line shows an error of the
  ///   domain "CBOR" that tells what is wrong and where;
  /// - for an archive under another key, or one that holds an object of another class than
  ///   supportedClasses, the line shows no error.
  ZPKObjectPtr deserialize(const ZPKDataPtr& data) override;

  /// "ZSKeyedArchiver/ZSKeyedUnarchiver".
  std::string formatName() const override;

  /// The classes that deserialize gives: ZPKDictionary, ZPKString, ZPKNumber and ZPKData.
  static const ZPKClassSet& supportedClasses();
};
