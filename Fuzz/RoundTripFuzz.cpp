// Objects of every shape, made from the input: exactly those that the documentation names can be
// written and read, and they come back unchanged.
#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Data Channel/ZPKDataDefaultSerializer.h"
#include "FuzzInput.h"
#include "FuzzSupport.h"
#include "Utility/ZPIObjectTree.h"
#include "Utility/ZPIText.h"
#include "Utility/ZPKString.h"

namespace {

// A stack machine: leaves are pushed, containers take what is on top.
class Builder {
 public:
  explicit Builder(FuzzInput source) : _source(source) {}

  ZPKObjectPtr build() {
    while (!_source.isUsedUp()) step();
    return _stack.empty() ? nullptr : _stack.back();
  }

 private:
  void step() {
    switch (_source.byte() % 10) {
      case 0: return push(_source.number(8));
      case 1: return push(static_cast<int64_t>(_source.number(8)));
      case 2: return push(static_cast<int8_t>(_source.byte()));
      case 3: return push(std::bit_cast<double>(_source.number(8)));
      case 4: return push(_source.byte() % 2 == 1);
      case 5: return push(_source.text());
      case 6: return push(ZPKData::dataWithString(_source.text()));
      case 7: return push(dictionaryOfTop(_source.byte() % 8));
      case 8: return push(ZPKArray::init(top(_source.byte() % 4)));
      default: return push(nullptr);
    }
  }

  void push(const ZPKValue& value) { _stack.push_back(value.object()); }

  std::vector<ZPKObjectPtr> top(size_t count) {
    const auto taken = static_cast<std::ptrdiff_t>(std::min(count, _stack.size()));
    std::vector<ZPKObjectPtr> objects(_stack.end() - taken, _stack.end());
    _stack.erase(_stack.end() - taken, _stack.end());
    return objects;
  }

  ZPKDictionaryPtr dictionaryOfTop(size_t count) {
    ZPKDictionary::Entries entries;
    for (const ZPKObjectPtr& object : top(count)) entries.emplace_back(_source.text(), object);
    return ZPKDictionary::init(std::move(entries));
  }

  FuzzInput _source;
  std::vector<ZPKObjectPtr> _stack;
};

// What the documentation says about an object.
class Expectation final : public ZPIObjectVisitor {
 public:
  explicit Expectation(const ZPKObjectPtr& object) { ZPIWalkObjectTree(object.get(), this); }

  bool beginDictionary(const ZPKDictionary&) override { return true; }
  bool key(const std::string& key) override { return note(key); }
  void endDictionary() override {}
  bool beginArray(const ZPKArray&) override {
    isReadable = false;
    return true;
  }
  void endArray() override {}
  bool leaf(ZPIObjectKind /*kind*/, const ZPKObject* object) override {
    if (object == nullptr) isReadable = false;
    const auto* string = dynamic_cast<const ZPKString*>(object);
    return string == nullptr || note(string->value());
  }

  bool isWritable = true;
  bool isReadable = true;

 private:
  bool note(const std::string& text) {
    if (!ZPIIsValidUTF8(text)) isWritable = false;
    return true;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  silenceLog();
  const ZPKObjectPtr object = Builder(FuzzInput(bytes, size)).build();
  const Expectation expected(object);
  ZPKDataDefaultSerializer serializer;
  const ZPKDataPtr archive = serializer.serialize(object);
  require((archive != nullptr) == expected.isWritable, "what is text can be written");
  if (archive == nullptr) return 0;
  const ZPKObjectPtr back = serializer.deserialize(archive);
  require((back != nullptr) == expected.isReadable, "what has a supported class can be read");
  if (back == nullptr) return 0;
  require(ZPKObjectsAreEqual(back, object), "what is read equals what was written");
  const ZPKDataPtr again = serializer.serialize(back);
  require(again != nullptr && *again == *archive, "what is read is written as before");
  return 0;
}
