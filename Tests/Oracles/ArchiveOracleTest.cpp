// The archive of the default serializer beside the CBOR reader of nlohmann-json, which accepts
// more: any CBOR, whether or not it is in the one form that an archive has.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>
#include <utility>

#include "ZephalIO/ZPKData.h"
#include "ZephalIO/ZPKDataDefaultSerializer.h"
#include "ZephalIO/ZPKDictionary.h"
#include "ZephalIO/ZPKMutableData.h"
#include "ZephalIO/ZPKNumber.h"
#include "ZephalIO/ZPKString.h"
#include "ZephalIO/ZPKValue.h"
#include "ZephalLogging/ZephalLogging.h"

namespace {

using nlohmann::json;

// An object and what the other library should read from its archive.
struct Sample {
  ZPKObjectPtr object;
  json expected;
};

template <class Value>
Sample sampleOf(Value value) {
  return {ZPKValue(value).object(), json(value)};
}

class Samples {
 public:
  Sample next(int depth = 0) {
    switch (below(depth < 3 ? 8 : 5)) {
      case 0: return sampleOf(number());
      case 1: return sampleOf(static_cast<int64_t>(number()));
      case 2: return sampleOf(real());
      case 3: return sampleOf(below(2) == 0);
      case 4: return sampleOf(text());
      case 5: return bytes();
      default: return dictionary(depth);
    }
  }

  size_t below(size_t limit) { return static_cast<size_t>(_random() % limit); }

 private:
  // Of every width.
  uint64_t number() { return _random() >> below(64); }

  // Any bits, but no NaN, which equals nothing.
  double real() {
    const double value = std::bit_cast<double>(_random());
    return value == value ? value : 0.5;
  }

  std::string text() {
    std::string text;
    const size_t length = below(40);
    for (size_t i = 0; i < length; ++i) text += below(4) == 0 ? "é" : "a";
    return text;
  }

  Sample bytes() {
    std::string content(below(300), '\xff');
    return {ZPKData::dataWithString(content), json::binary({content.begin(), content.end()})};
  }

  Sample dictionary(int depth) {
    ZPKDictionary::Entries entries;
    json expected = json::object();
    const size_t count = below(30);
    for (size_t i = 0; i < count; ++i) {
      const std::string key = text();
      const Sample sample = next(depth + 1);
      if (expected.contains(key)) continue;
      entries.emplace_back(key, sample.object);
      expected[key] = sample.expected;
    }
    return {ZPKDictionary::init(std::move(entries)), expected};
  }

  std::mt19937_64 _random{1};
};

// Null if it refuses. A size that no memory has is an exception even without exceptions.
std::optional<json> readByOther(const ZPKDataPtr& archive) {
  try {
    return json::from_cbor(archive->view());
  } catch (const json::exception&) {
    return std::nullopt;
  }
}

class ArchiveOracle : public testing::Test {
 protected:
  void SetUp() override {
    ZPKLoggingSetSink([](int, std::string_view) {});
  }
  void TearDown() override { ZPKLoggingSetSink({}); }

  ZPKDataDefaultSerializer _serializer;
  Samples _samples;
};

TEST_F(ArchiveOracle, RandomObjectsAreReadAsTheyWereWritten) {
  for (int i = 0; i < 300; ++i) {
    const Sample sample = _samples.next();
    const ZPKDataPtr archive = _serializer.serialize(sample.object);
    ASSERT_NE(archive, nullptr);
    const std::optional<json> read = readByOther(archive);
    ASSERT_TRUE(read.has_value());
    ASSERT_EQ(*read, json({{"ArbitraryKey", sample.expected}}));
  }
}

TEST_F(ArchiveOracle, DamagedArchivesAreRefusedWhereTheOtherReaderRefuses) {
  size_t accepted = 0;
  size_t refused = 0;
  for (int i = 0; i < 5'000; ++i) {
    const ZPKMutableDataPtr archive = _serializer.serialize(_samples.next(2).object)->mutableCopy();
    archive->mutableBytes()[_samples.below(archive->length())] =
        static_cast<uint8_t>(_samples.below(256));
    if (_samples.below(8) == 0) archive->setLength(_samples.below(archive->length()));
    const ZPKObjectPtr object = _serializer.deserialize(archive);
    const std::optional<json> read = readByOther(archive);
    if (!read.has_value()) {
      ASSERT_EQ(object, nullptr) << archive->debugDescription();
      ++refused;
    }
    if (object != nullptr) ++accepted;
  }
  EXPECT_GT(accepted, 100U);
  EXPECT_GT(refused, 100U);
}

}  // namespace
