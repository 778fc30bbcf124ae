#include "Data Channel Internal/ZPIArchiveWriter.h"

#include "Data Channel Internal/ZPICBORHead.h"
#include "Utility/ZPIDataGivingUp.h"
#include "Utility/ZPIObjectTree.h"
#include "Utility/ZPIText.h"
#include "Utility/ZPKString.h"

namespace {

class Encoder final : public ZPIObjectVisitor {
 public:
  explicit Encoder(ZPIHeapVector<uint8_t>* out) : _out(out) {}

  bool beginDictionary(const ZPKDictionary& dictionary) override {
    ZPIAppendCBORHead(ZPICBORKind::Map, dictionary.count(), _out);
    return true;
  }

  // A dictionary already has its keys in the order that an archive needs.
  bool key(const std::string& key) override { return appendText(key); }
  void endDictionary() override {}

  bool beginArray(const ZPKArray& array) override {
    ZPIAppendCBORHead(ZPICBORKind::Array, array.count(), _out);
    return true;
  }

  void endArray() override {}

  bool leaf(ZPIObjectKind kind, const ZPKObject* object) override {
    switch (kind) {
      case ZPIObjectKind::Null: ZPIAppendCBORSimple(kZPICBORNull, _out); return true;
      case ZPIObjectKind::Number: return appendNumber(*static_cast<const ZPKNumber*>(object));
      case ZPIObjectKind::String: return appendText(static_cast<const ZPKString*>(object)->value());
      case ZPIObjectKind::Data:
        return appendSized(ZPICBORKind::Bytes, static_cast<const ZPKData*>(object)->view());
      default: return false;
    }
  }

  bool appendText(std::string_view text) {
    if (!ZPIIsValidUTF8(text)) return false;
    return appendSized(ZPICBORKind::Text, text);
  }

 private:
  bool appendNumber(const ZPKNumber& number) {
    if (number.isBool()) {
      ZPIAppendCBORSimple(number.boolValue() ? kZPICBORTrue : kZPICBORFalse, _out);
    } else if (number.isDouble()) {
      ZPIAppendCBORDouble(number.doubleValue(), _out);
    } else if (number.integerValue() < 0) {
      // -1 is written as 0, -2 as 1, and so on: the bitwise complement.
      ZPIAppendCBORHead(ZPICBORKind::Negative, ~number.unsignedIntegerValue(), _out);
    } else {
      ZPIAppendCBORHead(ZPICBORKind::Unsigned, number.unsignedIntegerValue(), _out);
    }
    return true;
  }

  bool appendSized(ZPICBORKind kind, std::string_view bytes) {
    ZPIAppendCBORHead(kind, bytes.size(), _out);
    _out->append(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    return true;
  }

  ZPIHeapVector<uint8_t>* const _out;
};

}  // namespace

void ZPIArchiveWriter::encodeObjectForKey(const ZPKObjectPtr& object, std::string_view key) {
  ZPIHeapVector<uint8_t> out;
  Encoder encoder(&out);
  ZPIAppendCBORHead(ZPICBORKind::Map, 1, &out);
  const bool isWritten = encoder.appendText(key) && ZPIWalkObjectTree(object.get(), &encoder);
  _data = isWritten ? ZPIDataGivingUp(&out) : nullptr;
}
