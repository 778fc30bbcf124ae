// The archive reader on arbitrary bytes: it refuses them, or they are the only archive of the
// object that it returns. Its memory stays within the documented limit.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "Data Channel/ZPKDataDefaultSerializer.h"
#include "FuzzSupport.h"
#include "PeakMemory.h"
#include "Utility/ZPIObjectTree.h"

namespace {

constexpr size_t kMemoryFactor = 64;
// Allows for what does not grow with the input: the first blocks of two stacks, an error and a log
// line.
constexpr size_t kFixedMemory = 4096;

ZPKObjectPtr readWithinBounds(const ZPKDataPtr& archive) {
  const PeakMemory memory;
  ZPKObjectPtr object = ZPKDataDefaultSerializer().deserialize(archive);
  require(memory.peak() <= kMemoryFactor * archive->length() + kFixedMemory,
          "memory stays within its bounds");
  return object;
}

// Expects the keys of every dictionary in the order that lets an object have only one archive.
class OrderOfKeys final : public ZPIObjectVisitor {
 public:
  bool beginDictionary(const ZPKDictionary& dictionary) override {
    const auto isNotBefore = [](const ZPKDictionaryEntry& left, const ZPKDictionaryEntry& right) {
      if (left.key.size() != right.key.size()) return left.key.size() > right.key.size();
      return left.key >= right.key;
    };
    require(
        std::adjacent_find(dictionary.begin(), dictionary.end(), isNotBefore) == dictionary.end(),
        "keys are distinct and in order");
    return true;
  }
  bool key(const std::string& /*key*/) override { return true; }
  void endDictionary() override {}
  bool beginArray(const ZPKArray& /*array*/) override { return true; }
  void endArray() override {}
  bool leaf(ZPIObjectKind /*kind*/, const ZPKObject* /*object*/) override { return true; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  silenceLog();
  const ZPKDataPtr archive = ZPKData::dataWithBytes(bytes, size);
  const ZPKObjectPtr object = readWithinBounds(archive);
  if (object == nullptr) return 0;
  OrderOfKeys order;
  ZPIWalkObjectTree(object.get(), &order);
  ZPKDataDefaultSerializer serializer;
  const ZPKDataPtr again = serializer.serialize(object);
  require(again != nullptr && *again == *archive, "an object has one archive");
  require(ZPKObjectsAreEqual(serializer.deserialize(again), object), "an archive has one object");
  return 0;
}
