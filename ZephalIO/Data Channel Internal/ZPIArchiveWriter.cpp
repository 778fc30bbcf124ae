#include "Data Channel Internal/ZPIArchiveWriter.h"

#include "Data Channel Internal/ZPICBORHead.h"
#include "Utility/ZPIObjectTree.h"
#include "Utility/ZPIText.h"
#include "Utility/ZPKMutableData.h"
#include "Utility/ZPKString.h"

namespace {

class Encoder final : public ZPIObjectVisitor {
 public:
  explicit Encoder(ZPKMutableData* out) : _out(out) {}

  bool beginDictionary(const ZPKDictionary& dictionary) override {
    ZPIAppendCBORHead(ZPICBORKind::Map, dictionary.count(), _out);
    return true;
  }

  // A dictionary has its keys in the order in which an archive must have them.
  bool key(const std::string& key) override { return appendText(key); }
  void endDictionary() override {}

  bool beginArray(const ZPKArray& array) override {
    ZPIAppendCBORHead(ZPICBORKind::Array, array.count(), _out);
    return true;
  }

  void endArray() override {}

  bool leaf(const ZPKObject* object) override {
    if (object == nullptr) {
      ZPIAppendCBORSimple(kZPICBORNull, _out);
      return true;
    }
    if (const auto* number = dynamic_cast<const ZPKNumber*>(object)) return appendNumber(*number);
    if (const auto* string = dynamic_cast<const ZPKString*>(object)) {
      return appendText(string->value());
    }
    const auto* data = dynamic_cast<const ZPKData*>(object);
    return data != nullptr && appendBytes(*data);
  }

  bool appendText(std::string_view text) {
    if (!ZPIIsValidUTF8(text)) return false;
    ZPIAppendCBORHead(ZPICBORKind::Text, text.size(), _out);
    _out->append(text.data(), text.size());
    return true;
  }

 private:
  bool appendNumber(const ZPKNumber& number) {
    if (number.isBool()) {
      ZPIAppendCBORSimple(number.boolValue() ? kZPICBORTrue : kZPICBORFalse, _out);
    } else if (number.isDouble()) {
      ZPIAppendCBORDouble(number.doubleValue(), _out);
    } else if (number.integerValue() < 0) {
      // -1 is written as 0, -2 as 1, and so on: the complement.
      ZPIAppendCBORHead(ZPICBORKind::Negative, ~number.unsignedIntegerValue(), _out);
    } else {
      ZPIAppendCBORHead(ZPICBORKind::Unsigned, number.unsignedIntegerValue(), _out);
    }
    return true;
  }

  bool appendBytes(const ZPKData& data) {
    ZPIAppendCBORHead(ZPICBORKind::Bytes, data.length(), _out);
    _out->append(data);
    return true;
  }

  ZPKMutableData* const _out;
};

}  // namespace

void ZPIArchiveWriter::encodeObjectForKey(const ZPKObjectPtr& object, std::string_view key) {
  const ZPKMutableDataPtr out = ZPKMutableData::data();
  Encoder encoder(out.get());
  ZPIAppendCBORHead(ZPICBORKind::Map, 1, out.get());
  const bool isWritten = encoder.appendText(key) && ZPIWalkObjectTree(object.get(), &encoder);
  _data = isWritten ? out : nullptr;
}
