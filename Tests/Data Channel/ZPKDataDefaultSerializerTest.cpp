#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Data Channel/ZPKDataDefaultSerializer.h"
#include "Support/LogCapture.h"
#include "Utility/ZPKDictionary.h"
#include "Utility/ZPKMutableData.h"
#include "Utility/ZPKString.h"
#include "ZephalLogging.h"

using namespace support;

namespace {

using testing::ElementsAre;

const std::string kNoErrorLine = "Error in deserialization (null)\n";

class Plain final : public ZPKObject {};

ZPKDataPtr serialize(const ZPKObjectPtr& object) {
  return ZPKDataDefaultSerializer::init()->serialize(object);
}

ZPKObjectPtr deserialize(const ZPKDataPtr& data) {
  return ZPKDataDefaultSerializer::init()->deserialize(data);
}

// An object after writing and reading; null if either failed.
ZPKObjectPtr roundTrip(const ZPKObjectPtr& object) {
  const ZPKDataPtr data = serialize(object);
  return data == nullptr ? nullptr : deserialize(data);
}

ZPKDictionaryPtr message() {
  return ZPKDictionary::init({{"name", "dut-7 \xf0\x9f\x94\x8b"},
                              {"", ""},
                              {"slot", 3},
                              {"ok", true},
                              {"volts", -0.25},
                              {"raw", ZPKData::dataWithBytes("\x00\xff\x80", 3)},
                              {"none", ZPKData::data()},
                              {"limits", {{"low", -1}, {"deeper", {{"high", 1e300}}}}},
                              {"empty", ZPKDictionary::init()}});
}

void expectReadersError(const ZPKDataPtr& data, const std::string& error) {
  LogCapture log;
  EXPECT_EQ(deserialize(data), nullptr);
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, "Error in deserialization " + error + "\n"}));
}

TEST(ZPKDataDefaultSerializerTest, ADictionaryOfAllClassesIsReadBackEqual) {
  const LogCapture log;
  const ZPKObjectPtr back = roundTrip(message());
  EXPECT_TRUE(ZPKObjectsAreEqual(back, message())) << ZPKLoggingFormat("%@", back);
  EXPECT_TRUE(log.lines().empty());
}

TEST(ZPKDataDefaultSerializerTest, EachClassIsReadBackAtTheTop) {
  for (const ZPKValue& value :
       std::vector<ZPKValue>{"text", "", 7, -0.5, false, ZPKData::dataWithString("bytes"),
                             ZPKData::data(), ZPKDictionary::init()}) {
    const ZPKObjectPtr back = roundTrip(value);
    ASSERT_NE(back, nullptr) << value.object()->debugDescription();
    EXPECT_TRUE(ZPKObjectsAreEqual(back, value)) << value.object()->debugDescription();
    const ZPKObject& read = *back;
    const ZPKObject& written = *value.object();
    EXPECT_EQ(typeid(read), typeid(written));
  }
}

TEST(ZPKDataDefaultSerializerTest, IntegersAreReadBackAsTheSameIntegers) {
  std::vector<ZPKNumber> numbers{std::numeric_limits<uint64_t>::max(),
                                 std::numeric_limits<int64_t>::min()};
  for (int shift = 0; shift < 64; ++shift) {
    const uint64_t power = uint64_t{1} << shift;
    for (const uint64_t number : {power - 1, power, power + 1}) {
      numbers.emplace_back(number);
      numbers.emplace_back(static_cast<int64_t>(number));
      numbers.emplace_back(static_cast<int64_t>(~number));
    }
  }
  for (const ZPKNumber& number : numbers) {
    const auto back = ZPKObjectCast<ZPKNumber>(roundTrip(ZPKValue(number)));
    ASSERT_NE(back, nullptr) << number.stringValue();
    EXPECT_TRUE(back->isInteger());
    EXPECT_EQ(back->stringValue(), number.stringValue());
  }
}

TEST(ZPKDataDefaultSerializerTest, DoublesAreReadBackBitByBit) {
  using Limits = std::numeric_limits<double>;
  const auto oddNaN = std::bit_cast<double>(uint64_t{0xFFF8000000001234});
  for (const double number :
       {0.0, -0.0, 1.0, 0.1, Limits::max(), Limits::min(), Limits::denorm_min(), Limits::lowest(),
        Limits::infinity(), -Limits::infinity(), Limits::quiet_NaN(), -Limits::quiet_NaN(), oddNaN,
        9007199254740993.0}) {
    const auto back = ZPKObjectCast<ZPKNumber>(roundTrip(ZPKValue(number)));
    ASSERT_NE(back, nullptr) << number;
    EXPECT_TRUE(back->isDouble()) << number;
    EXPECT_EQ(std::bit_cast<uint64_t>(back->doubleValue()), std::bit_cast<uint64_t>(number))
        << number;
  }
}

TEST(ZPKDataDefaultSerializerTest, BoolsAreReadBackAsBools) {
  for (const bool value : {false, true}) {
    const auto back = ZPKObjectCast<ZPKNumber>(roundTrip(ZPKValue(value)));
    ASSERT_NE(back, nullptr);
    EXPECT_TRUE(back->isBool());
    EXPECT_EQ(back->boolValue(), value);
  }
}

TEST(ZPKDataDefaultSerializerTest, TextWithEveryKindOfCharacterIsReadBack) {
  const std::string text("a\0b\n\"\xc3\xa4\xe2\x82\xac\xf4\x8f\xbf\xbf", 14);
  const auto back = ZPKObjectCast<ZPKDictionary>(roundTrip(ZPKDictionary::init({{text, text}})));
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->string(text), text);
}

TEST(ZPKDataDefaultSerializerTest, AMillionNestedDictionariesAreReadBackEqual) {
  ZPKObjectPtr object = ZPKValue("innermost");
  for (int i = 0; i < 1'000'000; ++i) object = ZPKDictionary::init({{"in", std::move(object)}});
  ZPKObjectPtr back = roundTrip(object);
  EXPECT_TRUE(ZPKObjectsAreEqual(back, object));
  back.reset();
  object.reset();
}

TEST(ZPKDataDefaultSerializerTest, LargePartsAreReadBack) {
  const std::string large(1 << 20, 'x');
  ZPKDictionary::Entries entries;
  for (int i = 0; i < 10'000; ++i) entries.emplace_back("key " + std::to_string(i), i);
  entries.emplace_back("text", large);
  entries.emplace_back("data", ZPKData::dataWithString(large));
  const auto dictionary = ZPKDictionary::init(std::move(entries));
  EXPECT_TRUE(ZPKObjectsAreEqual(roundTrip(dictionary), dictionary));
}

TEST(ZPKDataDefaultSerializerTest, MutableDataAreWrittenAndReadBackAsData) {
  auto editable = ZPKMutableData::data();
  editable->append("abc", 3);
  const ZPKObjectPtr back = roundTrip(editable);
  ASSERT_NE(back, nullptr);
  const ZPKObject& read = *back;
  EXPECT_EQ(typeid(read), typeid(ZPKData));
  EXPECT_EQ(ZPKObjectCast<ZPKData>(back)->view(), "abc");
}

TEST(ZPKDataDefaultSerializerTest, AReadObjectDoesNotChangeWithItsArchive) {
  const ZPKMutableDataPtr archive = serialize(message())->mutableCopy();
  const ZPKObjectPtr back = deserialize(archive);
  archive->zeroRange({0, archive->length()});
  EXPECT_TRUE(ZPKObjectsAreEqual(back, message()));
}

TEST(ZPKDataDefaultSerializerTest, AnArchiveIsAMapWithTheOneKey) {
  EXPECT_EQ(serialize(ZPKValue(1))->view(),
            "\xa1\x6c"
            "ArbitraryKey\x01");
}

// The example of Documentation/archive-format.md.
TEST(ZPKDataDefaultSerializerTest, ADocumentedMessageHasItsDocumentedBytes) {
  const std::string archive =
      "\xa1\x6c"
      "ArbitraryKey"
      "\xa3\x62ok\xf5\x64name\x65"
      "dut-7\x64slot\x03";
  EXPECT_EQ(archive.size(), 36U);
  const auto object = ZPKDictionary::init({{"ok", true}, {"name", "dut-7"}, {"slot", 3}});
  EXPECT_EQ(serialize(object)->view(), archive);
  EXPECT_TRUE(ZPKObjectsAreEqual(deserialize(ZPKData::dataWithString(archive)), object));
}

TEST(ZPKDataDefaultSerializerTest, AnArrayIsWrittenButRejectedOnReading) {
  const auto array = ZPKArray::init({1, 2});
  for (const ZPKObjectPtr& object :
       std::vector<ZPKObjectPtr>{array, ZPKDictionary::init({{"a", 1}, {"b", array}}),
                                 ZPKDictionary::init({{"a", {{"b", ZPKArray::init()}}}})}) {
    LogCapture log;
    const ZPKDataPtr data = serialize(object);
    ASSERT_NE(data, nullptr);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(deserialize(data), nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, kNoErrorLine}));
  }
}

TEST(ZPKDataDefaultSerializerTest, NullIsWrittenButRejectedOnReading) {
  LogCapture log;
  const ZPKDataPtr data = serialize(nullptr);
  ASSERT_NE(data, nullptr);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(deserialize(data), nullptr);
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, kNoErrorLine}));
}

TEST(ZPKDataDefaultSerializerTest, AnUnwritableObjectGivesNullAndTheLogLine) {
  const ZPKObjectPtr plain = std::make_shared<const Plain>();
  for (const ZPKObjectPtr& object : std::vector<ZPKObjectPtr>{
           plain, ZPKArray::init({plain}), ZPKValue("\xff"), ZPKDictionary::init({{"a", "\xc3"}}),
           ZPKDictionary::init({{"\x80", 1}})}) {
    LogCapture log;
    EXPECT_EQ(serialize(object), nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, "Error in serialization (null)"}));
  }
}

TEST(ZPKDataDefaultSerializerTest, EmptyAndNullDataGiveNullAndTheReadersError) {
  expectReadersError(ZPKData::data(), "CBOR (1): the archive ends too early, at byte 0");
  expectReadersError(nullptr, "CBOR (1): the archive ends too early, at byte 0");
}

TEST(ZPKDataDefaultSerializerTest, InvalidArchivesGiveNullAndTheReadersError) {
  expectReadersError(ZPKData::dataWithString("hello"),
                     "CBOR (3): an item that no archive has, at byte 0");
  expectReadersError(ZPKData::dataWithString("\xa1"),
                     "CBOR (1): the archive ends too early, at byte 0");
}

TEST(ZPKDataDefaultSerializerTest, AnObjectUnderAnotherKeyGivesNullWithoutAnError) {
  for (const std::string_view archive : {"\xa1\x65other\x01", "\xa1\x60\x01",
                                         "\xa1\x6c"
                                         "arbitraryKey\x01",
                                         "\xa0"}) {
    LogCapture log;
    EXPECT_EQ(deserialize(ZPKData::dataWithString(archive)), nullptr);
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, kNoErrorLine}));
  }
}

TEST(ZPKDataDefaultSerializerTest, AnArchiveThatIsTruncatedAnywhereIsRejected) {
  const std::string archive(serialize(message())->view());
  for (size_t length = 0; length < archive.size(); ++length) {
    LogCapture log;
    EXPECT_EQ(deserialize(ZPKData::dataWithString(archive.substr(0, length))), nullptr) << length;
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(log.texts()[0].starts_with("Error in deserialization CBOR (1): ")) << length;
  }
}

TEST(ZPKDataDefaultSerializerTest, AFlippedByteIsRejectedOrYieldsAnotherObject) {
  const LogCapture log;
  const std::string archive(serialize(message())->view());
  for (size_t at = 0; at < archive.size(); ++at) {
    for (int flip = 1; flip < 256; ++flip) {
      std::string changed = archive;
      changed[at] = static_cast<char>(changed[at] ^ flip);
      const ZPKObjectPtr object = deserialize(ZPKData::dataWithString(changed));
      if (object == nullptr) continue;
      const ZPKDataPtr again = serialize(object);
      ASSERT_NE(again, nullptr);
      EXPECT_EQ(again->view(), changed) << at << " " << flip;
    }
  }
}

TEST(ZPKDataDefaultSerializerTest, RandomBytesAfterAValidStartDoNoHarm) {
  const LogCapture log;
  std::mt19937 random(7);
  for (int round = 0; round < 20'000; ++round) {
    std::string bytes =
        "\xa1\x6c"
        "ArbitraryKey";
    for (size_t length = random() % 24; length > 0; --length) {
      bytes.push_back(static_cast<char>(random()));
    }
    const ZPKObjectPtr object = deserialize(ZPKData::dataWithString(bytes));
    if (object == nullptr) continue;
    EXPECT_EQ(serialize(object)->view(), bytes);
  }
}

TEST(ZPKDataDefaultSerializerTest, ManyOpenedArraysOrMapsDoNoHarm) {
  const LogCapture log;
  for (const std::string_view opening : {"\x81", "\xa1\x60"}) {
    std::string bytes =
        "\xa1\x6c"
        "ArbitraryKey";
    for (int i = 0; i < 100'000; ++i) bytes += opening;
    EXPECT_EQ(deserialize(ZPKData::dataWithString(bytes)), nullptr);
    bytes += '\x01';  // now it is an archive
    EXPECT_EQ(deserialize(ZPKData::dataWithString(bytes)) != nullptr, opening != "\x81");
  }
}

TEST(ZPKDataDefaultSerializerTest, FormatNameNamesTheWriterBeforeTheReader) {
  EXPECT_EQ(ZPKDataDefaultSerializer::init()->formatName(), "ZSKeyedArchiver/ZSKeyedUnarchiver");
}

TEST(ZPKDataDefaultSerializerTest, SupportsExactlyFourClasses) {
  const ZPKClassSet& classes = ZPKDataDefaultSerializer::supportedClasses();
  EXPECT_EQ(classes, (ZPKClassSet{typeid(ZPKDictionary), typeid(ZPKString), typeid(ZPKNumber),
                                  typeid(ZPKData)}));
  EXPECT_FALSE(classes.contains(typeid(ZPKArray)));
}

TEST(ZPKDataDefaultSerializerTest, OneSerializerServesSeveralThreads) {
  const auto serializer = ZPKDataDefaultSerializer::init();
  const ZPKObjectPtr object = message();
  std::vector<std::thread> threads;
  std::vector<int> good(4);
  for (int& count : good) {
    threads.emplace_back([&count, &serializer, &object] {
      for (int i = 0; i < 200; ++i) {
        const ZPKObjectPtr back = serializer->deserialize(serializer->serialize(object));
        count += ZPKObjectsAreEqual(back, object) ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(good, testing::Each(200));
}

}  // namespace
