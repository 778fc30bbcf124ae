#include "Data Channel/ZPKDataDefaultSerializer.h"

#include <typeinfo>

#include "Data Channel Internal/ZPIArchiveReader.h"
#include "Data Channel Internal/ZPIArchiveWriter.h"
#include "Utility/ZPKDictionary.h"
#include "Utility/ZPKError.h"
#include "Utility/ZPKNumber.h"
#include "Utility/ZPKString.h"
#include "ZephalLogging.h"

namespace {

constexpr std::string_view kArchiveKey = "ArbitraryKey";

}  // namespace

static_assert(ZPKDataSerializerClass<ZPKDataDefaultSerializer>);

ZPKDataDefaultSerializerPtr ZPKDataDefaultSerializer::init() {
  return std::make_shared<ZPKDataDefaultSerializer>();
}

ZPKDataDefaultSerializer::ZPKDataDefaultSerializer() = default;

ZPKDataDefaultSerializer::~ZPKDataDefaultSerializer() = default;

ZPKDataPtr ZPKDataDefaultSerializer::serialize(const ZPKObjectPtr& object) {
  auto writer = ZPIArchiveWriter::initRequiringSecureCoding();
  writer.encodeObjectForKey(object, kArchiveKey);
  ZPKDataPtr data = writer.encodedData();
  if (data == nullptr) {
    ZPKLoggingLog(ZPKLogGetAnchor(), 0, "Error in serialization %@", nullptr);
  }
  writer.finishEncoding();
  return data;
}

ZPKObjectPtr ZPKDataDefaultSerializer::deserialize(const ZPKDataPtr& data) {
  ZPKErrorPtr error;
  ZPKObjectPtr object;
  if (const auto reader = ZPIArchiveReader::initForReading(data, &error)) {
    object = reader->decodeObjectForKey(kArchiveKey, supportedClasses());
  }
  if (object == nullptr) {
    ZPKLoggingLog(ZPKLogGetAnchor(), 0, "Error in deserialization %@\n", error);
  }
  return object;
}

std::string ZPKDataDefaultSerializer::formatName() const {
  return ZPKLoggingFormat("%s/%s", "ZSKeyedArchiver", "ZSKeyedUnarchiver");
}

const ZPKClassSet& ZPKDataDefaultSerializer::supportedClasses() {
  // Never destroyed: a manager's thread may still read while the process runs its exit handlers.
  static const auto* const classes =
      new ZPKClassSet{typeid(ZPKDictionary), typeid(ZPKString), typeid(ZPKNumber), typeid(ZPKData)};
  return *classes;
}
