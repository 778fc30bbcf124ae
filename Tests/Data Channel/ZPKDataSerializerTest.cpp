#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "Data Channel/ZPKDataSerializer.h"

namespace {

class Note final : public ZPKObject {
 public:
  explicit Note(std::string content) : text(std::move(content)) {}
  const std::string text;
};

class Other final : public ZPKObject {};

// A caller's own serializer, for a format of its own.
class NoteSerializer final : public ZPKDataSerializer {
 public:
  explicit NoteSerializer(bool* isDestroyed = nullptr) : _isDestroyed(isDestroyed) {}
  ~NoteSerializer() override {
    if (_isDestroyed != nullptr) *_isDestroyed = true;
  }

  static ZPKClassSet supportedClasses() { return {typeid(Note)}; }

  ZPKDataPtr serialize(const ZPKObjectPtr& object) override {
    const auto note = std::dynamic_pointer_cast<const Note>(object);
    return note == nullptr ? nullptr : ZPKData::dataWithString(note->text);
  }
  ZPKObjectPtr deserialize(const ZPKDataPtr& data) override {
    if (data == nullptr || !data->string().has_value()) return nullptr;
    return std::make_shared<const Note>(*data->string());
  }
  std::string formatName() const override { return "note"; }

 private:
  bool* const _isDestroyed;
};

TEST(ZPKDataSerializerTest, AnObjectIsWrittenAndReadBackThroughTheContract) {
  const ZPKDataSerializerPtr serializer = std::make_shared<NoteSerializer>();
  const ZPKDataPtr data = serializer->serialize(std::make_shared<const Note>("text"));
  ASSERT_NE(data, nullptr);
  const auto note = std::dynamic_pointer_cast<const Note>(serializer->deserialize(data));
  ASSERT_NE(note, nullptr);
  EXPECT_EQ(note->text, "text");
  EXPECT_EQ(serializer->formatName(), "note");
}

TEST(ZPKDataSerializerTest, AFailureIsNullInBothDirections) {
  NoteSerializer serializer;
  EXPECT_EQ(serializer.serialize(std::make_shared<const Other>()), nullptr);
  EXPECT_EQ(serializer.serialize(nullptr), nullptr);
  EXPECT_EQ(serializer.deserialize(ZPKData::dataWithString("\xFF")), nullptr);
}

TEST(ZPKDataSerializerTest, NullAndEmptyDataAreLegalAndDiffer) {
  NoteSerializer serializer;
  EXPECT_EQ(serializer.deserialize(nullptr), nullptr);
  EXPECT_NE(serializer.deserialize(ZPKData::data()), nullptr);
}

TEST(ZPKDataSerializerTest, TheSupportedClassesAreKnownWithoutAnInstance) {
  EXPECT_TRUE(NoteSerializer::supportedClasses().contains(typeid(Note)));
  EXPECT_FALSE(NoteSerializer::supportedClasses().contains(typeid(Other)));
}

TEST(ZPKDataSerializerTest, ASerializerIsDestroyedThroughTheContract) {
  bool isDestroyed = false;
  std::unique_ptr<ZPKDataSerializer> serializer = std::make_unique<NoteSerializer>(&isDestroyed);
  serializer.reset();
  EXPECT_TRUE(isDestroyed);
}

}  // namespace
