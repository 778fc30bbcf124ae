#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "Data Channel Internal/ZPIArchiveReader.h"
#include "Support/ErrorExpectations.h"
#include "Utility/ZPKDictionary.h"
#include "Utility/ZPKString.h"

using namespace support;

namespace {

using namespace std::string_view_literals;

const ZPKClassSet kAll{typeid(ZPKDictionary), typeid(ZPKString), typeid(ZPKNumber),
                       typeid(ZPKData)};

std::unique_ptr<ZPIArchiveReader> read(std::string_view bytes, ZPKErrorPtr* error = nullptr) {
  return ZPIArchiveReader::initForReading(ZPKData::dataWithString(bytes), error);
}

// The error for an archive that holds `item` under the key "k"; the position is relative to the
// start of the item.
void expectProblem(std::string_view item, ZPIArchiveError problem, size_t position,
                   const std::string& text) {
  constexpr std::string_view kStart = "\xa1\x61k";
  ZPKErrorPtr error;
  EXPECT_EQ(read(std::string(kStart) + std::string(item), &error), nullptr);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), "CBOR");
  EXPECT_EQ(error->code(), static_cast<int>(problem));
  EXPECT_EQ(error->description(), text + ", at byte " + std::to_string(kStart.size() + position));
}

void expectTooShort(std::string_view item, size_t position) {
  expectProblem(item, ZPIArchiveError::TooShort, position, "the archive ends too early");
}

void expectNotAllowed(std::string_view item, size_t position) {
  expectProblem(item, ZPIArchiveError::NotAllowed, position, "an item that no archive has");
}

void expectNotCanonical(std::string_view item, size_t position) {
  expectProblem(item, ZPIArchiveError::NotCanonical, position,
                "an item that is not in canonical form");
}

void expectNotText(std::string_view item, size_t position) {
  expectProblem(item, ZPIArchiveError::NotText, position, "text that is not UTF-8");
}

TEST(ZPIArchiveReaderTest, NullAndEmptyDataEndTooEarly) {
  ZPKErrorPtr error;
  EXPECT_EQ(ZPIArchiveReader::initForReading(nullptr, &error), nullptr);
  EXPECT_EQ(error->debugDescription(), "CBOR (1): the archive ends too early, at byte 0");
  error = nullptr;
  EXPECT_EQ(ZPIArchiveReader::initForReading(ZPKData::data(), &error), nullptr);
  EXPECT_EQ(error->debugDescription(), "CBOR (1): the archive ends too early, at byte 0");
  EXPECT_EQ(ZPIArchiveReader::initForReading(nullptr, nullptr), nullptr);
}

TEST(ZPIArchiveReaderTest, AReadableArchiveLeavesTheSlotAlone) {
  ZPKErrorPtr error = olderError();
  EXPECT_NE(read("\xa1\x61k\x01", &error), nullptr);
  EXPECT_EQ(error, olderError());
}

TEST(ZPIArchiveReaderTest, AnArchiveMustStartWithAMap) {
  for (const std::string_view bytes : {"\x01"sv, "\x61k"sv, "\x81\x01"sv, "\xf6"sv, "hello"sv}) {
    ZPKErrorPtr error;
    EXPECT_EQ(read(bytes, &error), nullptr);
    EXPECT_EQ(error->debugDescription(), "CBOR (3): an item that no archive has, at byte 0");
  }
}

TEST(ZPIArchiveReaderTest, AMapOfADifferentSizeHoldsNoObject) {
  for (const std::string_view bytes : {"\xa0"sv, "\xa2\x61k\x01\x61l\x02"sv}) {
    ZPKErrorPtr error;
    const auto reader = read(bytes, &error);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(reader->decodeObjectForKey("k", kAll), nullptr);
  }
}

TEST(ZPIArchiveReaderTest, ADifferentKeyHoldsNoObject) {
  const auto reader = read("\xa1\x61k\x01");
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(reader->decodeObjectForKey("K", kAll), nullptr);
  EXPECT_EQ(reader->decodeObjectForKey("", kAll), nullptr);
  EXPECT_EQ(reader->decodeObjectForKey("kk", kAll), nullptr);
  EXPECT_NE(reader->decodeObjectForKey("k", kAll), nullptr);
}

TEST(ZPIArchiveReaderTest, OnlyTheRequestedClassesAreDecoded) {
  struct Case {
    std::string_view bytes;
    std::type_index type;
  };
  for (const auto& [bytes, type] :
       {Case{"\xa1\x61k\xa0", typeid(ZPKDictionary)},
        Case{"\xa1\x61k\xa1\x60\xa0", typeid(ZPKDictionary)},
        Case{"\xa1\x61k\x61t", typeid(ZPKString)}, Case{"\xa1\x61k\x01", typeid(ZPKNumber)},
        Case{"\xa1\x61k\xf5", typeid(ZPKNumber)}, Case{"\xa1\x61k\x41x", typeid(ZPKData)}}) {
    ZPKClassSet others = kAll;
    others.erase(type);
    const auto reader = read(bytes);
    ASSERT_NE(reader, nullptr);
    EXPECT_NE(reader->decodeObjectForKey("k", {type}), nullptr);
    EXPECT_EQ(reader->decodeObjectForKey("k", others), nullptr);
    EXPECT_EQ(reader->decodeObjectForKey("k", {}), nullptr);
  }
}

TEST(ZPIArchiveReaderTest, ArraysAndNullAreReadableButNeverDecoded) {
  ZPKClassSet withArrays = kAll;
  withArrays.insert(typeid(ZPKArray));
  for (const std::string_view bytes :
       {"\xa1\x61k\x80"sv, "\xa1\x61k\x82\x01\x02"sv, "\xa1\x61k\xf6"sv,
        "\xa1\x61k\xa2\x61\x61\x01\x61\x62\x80"sv, "\xa1\x61k\xa2\x61\x61\x01\x61\x62\xf6"sv}) {
    const auto reader = read(bytes);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(reader->decodeObjectForKey("k", withArrays), nullptr);
  }
}

TEST(ZPIArchiveReaderTest, AnArchiveCanBeDecodedMoreThanOnce) {
  const auto reader = read("\xa1\x61k\xa1\x61\x61\x01");
  ASSERT_NE(reader, nullptr);
  const ZPKObjectPtr first = reader->decodeObjectForKey("k", kAll);
  EXPECT_TRUE(ZPKObjectsAreEqual(first, ZPKDictionary::init({{"a", 1}})));
  EXPECT_TRUE(ZPKObjectsAreEqual(first, reader->decodeObjectForKey("k", kAll)));
}

TEST(ZPIArchiveReaderTest, BytesAfterTheArchiveAreRejected) {
  ZPKErrorPtr error;
  EXPECT_EQ(read("\xa1\x61k\x01\x00"sv, &error), nullptr);
  EXPECT_EQ(error->debugDescription(), "CBOR (2): there are bytes behind the archive, at byte 4");
}

TEST(ZPIArchiveReaderTest, TagsAreRejected) {
  expectNotAllowed("\xc0\x61t", 0);
  expectNotAllowed("\xd8\x2a\x01", 0);
}

TEST(ZPIArchiveReaderTest, FloatsOf16And32BitsAreRejected) {
  expectNotAllowed("\xf9\x3c\x00"sv, 0);
  expectNotAllowed("\xfa\x3f\x80\x00\x00"sv, 0);
}

TEST(ZPIArchiveReaderTest, UndefinedAndOtherSimpleValuesAreRejected) {
  expectNotAllowed("\xf7", 0);
  expectNotAllowed("\xe0", 0);
  expectNotAllowed("\xf8\xff", 0);
  expectNotAllowed("\xff", 0);
}

TEST(ZPIArchiveReaderTest, IndefiniteLengthsAreRejected) {
  expectNotAllowed("\x5f\x41x\xff", 0);
  expectNotAllowed("\x7f\x61x\xff", 0);
  expectNotAllowed("\x9f\x01\xff", 0);
  expectNotAllowed("\xbf\x61x\x01\xff", 0);
}

TEST(ZPIArchiveReaderTest, KeysThatAreNotTextAreRejected) {
  expectNotAllowed("\xa1\x01\x01", 1);
  expectNotAllowed("\xa1\x41x\x01", 1);
  expectNotAllowed("\xa1\xa0\x01", 1);
  expectNotAllowed("\xa1\xf6\x01", 1);
}

TEST(ZPIArchiveReaderTest, IntegersBelowTheSmallestOf64BitsAreRejected) {
  EXPECT_NE(read("\xa1\x61k\x3b\x7f\xff\xff\xff\xff\xff\xff\xff"), nullptr);
  expectNotAllowed("\x3b\x80\x00\x00\x00\x00\x00\x00\x00"sv, 0);
  expectNotAllowed("\x3b\xff\xff\xff\xff\xff\xff\xff\xff", 0);
}

TEST(ZPIArchiveReaderTest, LongFormsOfShortNumbersAreRejected) {
  expectNotCanonical("\x18\x17", 0);
  expectNotCanonical("\x39\x00\x01"sv, 0);
  expectNotCanonical("\x58\x01x", 0);
  expectNotCanonical("\x78\x01x", 0);
  expectNotCanonical("\x98\x01\x01", 0);
  expectNotCanonical("\xb8\x01\x61x\x01", 0);
  expectNotCanonical("\xa1\x78\x01x\x01", 1);
}

TEST(ZPIArchiveReaderTest, RepeatedKeysAreRejected) {
  expectNotCanonical("\xa2\x61\x61\x01\x61\x61\x02", 4);
  expectNotCanonical("\xa2\x60\x01\x60\x02", 3);
  expectNotCanonical("\xa2\x61\x61\x01\x61\x61\x01", 4);
}

TEST(ZPIArchiveReaderTest, KeysOutOfOrderAreRejected) {
  expectNotCanonical("\xa2\x61\x62\x01\x61\x61\x02", 4);
  expectNotCanonical("\xa2\x62\x61\x61\x01\x61\x62\x02", 5);
  EXPECT_NE(read("\xa1\x61k\xa2\x61\x62\x01\x62\x61\x61\x02"), nullptr);
}

TEST(ZPIArchiveReaderTest, KeysAreOrderedWithinTheirOwnDictionary) {
  // {"b": {"a": 1}, "c": 2} has the keys b, a, c in this order.
  EXPECT_NE(read("\xa1\x61k\xa2\x61\x62\xa1\x61\x61\x01\x61\x63\x02"), nullptr);
  // {"b": {"c": 1}, "a": 2}
  expectNotCanonical("\xa2\x61\x62\xa1\x61\x63\x01\x61\x61\x02", 7);
}

TEST(ZPIArchiveReaderTest, TextThatIsNotUTF8IsRejected) {
  expectNotText("\x61\xff", 0);
  expectNotText("\x62\xc0\x80", 0);
  expectNotText("\x63\xed\xa0\x80", 0);
  expectNotText("\xa1\x61\xff\x01", 1);
  EXPECT_NE(read("\xa1\x61k\x64\xf0\x9f\x94\x8b"), nullptr);
}

TEST(ZPIArchiveReaderTest, LengthsNearTwoToThe64AreTooLong) {
  for (const char last : {'\xff', '\xf8', '\x00'}) {
    for (const char kind : {'\x5b', '\x7b', '\x9b', '\xbb'}) {
      const std::string item = kind + std::string(7, '\xff') + last + "abc";
      ZPKErrorPtr error;
      EXPECT_EQ(read("\xa1\x61k" + item, &error), nullptr);
      EXPECT_EQ(error->code(), static_cast<int>(ZPIArchiveError::TooShort));
    }
  }
}

TEST(ZPIArchiveReaderTest, CountsThatExceedTheBytesAreRejectedAtOnce) {
  expectTooShort("\x9a\x7f\xff\xff\xff\x01", 0);
  expectTooShort("\xba\x7f\xff\xff\xff\x61x\x01", 0);
  expectTooShort("\x82\x01", 0);
  expectTooShort("\xa2\x61x\x01", 0);
  expectTooShort("\x42x", 0);
  expectTooShort("\x62x", 0);
}

TEST(ZPIArchiveReaderTest, TheInnermostItemThatEndsTooEarlyIsReported) {
  expectTooShort("\x82\x81\x01", 3);          // the second element is missing
  expectTooShort("\x82\x01\x82\x01", 2);      // only one of the two inner elements
  expectTooShort("\xa1\x61x\x42y", 3);        // a value's bytes
  expectTooShort("\xa1\x63x\x01", 1);         // a key's bytes
  expectTooShort("\x1b\x01\x02\x03\x04", 0);  // a number's bytes
  expectTooShort("", 0);                      // no value at all
}

}  // namespace
