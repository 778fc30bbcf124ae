#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "Data Channel Internal/ZPIArchiveWriter.h"
#include "Utility/ZPKDataConversionFunctions.h"
#include "Utility/ZPKDictionary.h"
#include "Utility/ZPKMutableData.h"
#include "Utility/ZPKString.h"

namespace {

class Plain final : public ZPKObject {};

class DerivedData final : public ZPKData {
 public:
  DerivedData() : ZPKData(false) {}
};

ZPKDataPtr write(const ZPKObjectPtr& object, std::string_view key = "k") {
  auto writer = ZPIArchiveWriter::initRequiringSecureCoding();
  writer.encodeObjectForKey(object, key);
  return writer.encodedData();
}

// The archive under the key "k", in hexadecimal, without the map and key at its start.
std::string hexOf(const ZPKValue& value) {
  const ZPKDataPtr data = write(value);
  if (data == nullptr) return "null";
  const std::string hex = data->debugDescription();
  return hex.starts_with("h'a1616b") ? hex.substr(8, hex.size() - 9) : "no archive: " + hex;
}

TEST(ZPIArchiveWriterTest, IntegersHaveTheShortestForm) {
  EXPECT_EQ(hexOf(0), "00");
  EXPECT_EQ(hexOf(24), "1818");
  EXPECT_EQ(hexOf(-1), "20");
  EXPECT_EQ(hexOf(-25), "3818");
  EXPECT_EQ(hexOf(std::numeric_limits<int64_t>::max()), "1b7fffffffffffffff");
  EXPECT_EQ(hexOf(std::numeric_limits<int64_t>::min()), "3b7fffffffffffffff");
  EXPECT_EQ(hexOf(std::numeric_limits<uint64_t>::max()), "1bffffffffffffffff");
}

TEST(ZPIArchiveWriterTest, DoublesAlwaysTake64Bits) {
  EXPECT_EQ(hexOf(1.0), "fb3ff0000000000000");
  EXPECT_EQ(hexOf(-0.0), "fb8000000000000000");
  EXPECT_EQ(hexOf(std::numeric_limits<double>::infinity()), "fb7ff0000000000000");
  EXPECT_EQ(hexOf(std::numeric_limits<double>::quiet_NaN()), "fb7ff8000000000000");
}

TEST(ZPIArchiveWriterTest, BoolsTextDataAndNullHaveTheirKinds) {
  EXPECT_EQ(hexOf(false), "f4");
  EXPECT_EQ(hexOf(true), "f5");
  EXPECT_EQ(hexOf(nullptr), "f6");
  EXPECT_EQ(hexOf("\xc3\xa4"), "62c3a4");
  EXPECT_EQ(hexOf(""), "60");
  EXPECT_EQ(hexOf(ZPKData::dataWithBytes("\xff\x00", 2)), "42ff00");
  EXPECT_EQ(hexOf(ZPKData::data()), "40");
}

TEST(ZPIArchiveWriterTest, DictionariesHaveTheirKeysInOrder) {
  EXPECT_EQ(hexOf(ZPKDictionary::init()), "a0");
  EXPECT_EQ(hexOf({{"bb", 1}, {"c", 2}, {"aa", 3}}), "a36163026261610362626201");
}

TEST(ZPIArchiveWriterTest, ArraysAreWritten) {
  EXPECT_EQ(hexOf(ZPKArray::init({1, "a", nullptr})), "83016161f6");
}

TEST(ZPIArchiveWriterTest, TheKeyIsWritten) {
  EXPECT_EQ(write(ZPKValue(1), "other")->view(), "\xa1\x65other\x01");
  EXPECT_EQ(write(ZPKValue(1), "")->view(), "\xa1\x60\x01");
}

TEST(ZPIArchiveWriterTest, TextThatIsNotUTF8CannotBeWritten) {
  EXPECT_EQ(write(ZPKValue("\xff")), nullptr);
  EXPECT_EQ(write(ZPKValue(std::string("ab\x80"))), nullptr);
  EXPECT_EQ(write(ZPKDictionary::init({{"\xff", 1}})), nullptr);
  EXPECT_EQ(write(ZPKDictionary::init({{"a", ZPKArray::init({1, "\xed\xa0\x80"})}})), nullptr);
  EXPECT_EQ(write(ZPKValue(1), "\xff"), nullptr);
}

TEST(ZPIArchiveWriterTest, ACallersOwnClassCannotBeWritten) {
  const ZPKObjectPtr plain = std::make_shared<const Plain>();
  EXPECT_EQ(write(plain), nullptr);
  EXPECT_EQ(write(ZPKDictionary::init({{"a", 1}, {"b", {{"c", plain}}}})), nullptr);
}

TEST(ZPIArchiveWriterTest, DataOfADerivedClassAreWritten) {
  const auto data = std::make_shared<ZPKMutableData>();
  data->append("\xff", 1);
  EXPECT_EQ(write(data)->view(), "\xa1\x61k\x41\xff");
  EXPECT_EQ(write(std::make_shared<const DerivedData>())->view(), "\xa1\x61k\x40");
}

TEST(ZPIArchiveWriterTest, HasNoBytesBeforeWritingAndAfterFinishing) {
  auto writer = ZPIArchiveWriter::initRequiringSecureCoding();
  EXPECT_EQ(writer.encodedData(), nullptr);
  writer.encodeObjectForKey(ZPKValue(1), "k");
  const ZPKDataPtr data = writer.encodedData();
  writer.finishEncoding();
  EXPECT_EQ(writer.encodedData(), nullptr);
  EXPECT_EQ(data->view(), "\xa1\x61k\x01");
}

}  // namespace
