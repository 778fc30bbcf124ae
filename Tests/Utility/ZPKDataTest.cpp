#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "Support/Bytes.h"
#include "Utility/ZPKData.h"
#include "Utility/ZPKMutableData.h"

using namespace support;

namespace {

void* heapCopyOf(std::string_view bytes, size_t size) {
  void* block = std::malloc(size);
  std::memcpy(block, bytes.data(), bytes.size());
  return block;
}

TEST(ZPKDataTest, TheEmptyInstanceIsOneAndTheSame) {
  EXPECT_EQ(ZPKData::data(), ZPKData::data());
  EXPECT_EQ(ZPKData::data()->length(), 0U);
  EXPECT_EQ(ZPKData::data()->view(), "");
  EXPECT_FALSE(ZPKData::data()->isMutable());
}

TEST(ZPKDataTest, ACopyOfBytesIsIndependentOfThem) {
  std::string bytes = "abc";
  const ZPKDataPtr data = ZPKData::dataWithBytes(bytes.data(), bytes.size());
  bytes[0] = 'x';
  EXPECT_EQ(data->view(), "abc");
  EXPECT_EQ(data->length(), 3U);
  EXPECT_EQ(data->bytes()[2], 'c');
}

TEST(ZPKDataTest, NoBytesBecomeEmptyDataEvenFromANullPointer) {
  const ZPKDataPtr data = ZPKData::dataWithBytes(nullptr, 0);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 0U);
}

TEST(ZPKDataTest, AHeapBufferIsTakenOverWithoutACopy) {
  void* buffer = heapCopyOf("abc", 64);
  const ZPKDataPtr data = ZPKData::dataWithBytesNoCopy(buffer, 3);
  EXPECT_EQ(data->bytes(), buffer);
  EXPECT_EQ(data->view(), "abc");
}

TEST(ZPKDataTest, AHeapBufferWithoutBytesIsTakenOverToo) {
  const ZPKDataPtr data = ZPKData::dataWithBytesNoCopy(std::malloc(16), 0);
  EXPECT_EQ(data->length(), 0U);
  EXPECT_EQ(ZPKData::dataWithBytesNoCopy(nullptr, 0)->length(), 0U);
}

TEST(ZPKDataTest, ANullStringBecomesNullAndAnEmptyOneEmpty) {
  EXPECT_EQ(ZPKData::dataWithString(std::nullopt), nullptr);
  const ZPKDataPtr empty = ZPKData::dataWithString("");
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty->length(), 0U);
}

TEST(ZPKDataTest, AStringIsItsUTF8Bytes) {
  EXPECT_EQ(dataOf("\xC3\xA9")->length(), 2U);
  EXPECT_EQ(dataOf(std::string_view("a\0b", 3))->length(), 3U);
}

TEST(ZPKDataTest, ACopyOfImmutableDataIsTheObjectItself) {
  const ZPKDataPtr data = dataOf("abc");
  EXPECT_EQ(data->copy(), data);
}

TEST(ZPKDataTest, ACopyOfMutableDataIsImmutableAndIndependent) {
  const ZPKMutableDataPtr original = dataOf("abc")->mutableCopy();
  const ZPKDataPtr copy = original->copy();
  original->append("d", 1);
  EXPECT_EQ(copy->view(), "abc");
  EXPECT_FALSE(copy->isMutable());
  EXPECT_TRUE(original->isMutable());
}

TEST(ZPKDataTest, AMutableCopyIsIndependent) {
  const ZPKDataPtr original = dataOf("abc");
  const ZPKMutableDataPtr copy = original->mutableCopy();
  copy->mutableBytes()[0] = 'x';
  EXPECT_EQ(original->view(), "abc");
  EXPECT_EQ(copy->view(), "xbc");
  EXPECT_EQ(ZPKData::data()->mutableCopy()->length(), 0U);
}

TEST(ZPKDataTest, MutableDataIsAcceptedWhereDataIs) {
  const ZPKMutableDataPtr buffer = ZPKMutableData::data();
  const ZPKDataPtr data = buffer;
  buffer->append("abc", 3);
  EXPECT_EQ(data->view(), "abc");
}

TEST(ZPKDataTest, BytesAreCopiedOutUpToTheGivenNumber) {
  char buffer[] = "......";
  const ZPKDataPtr data = dataOf("abc");
  EXPECT_EQ(data->getBytes(buffer, 2), 2U);
  EXPECT_STREQ(buffer, "ab....");
  EXPECT_EQ(data->getBytes(buffer, 6), 3U);
  EXPECT_STREQ(buffer, "abc...");
  EXPECT_EQ(data->getBytes(nullptr, 0), 0U);
  EXPECT_EQ(ZPKData::data()->getBytes(buffer, 6), 0U);
}

TEST(ZPKDataTest, APartIsANewObjectWithThoseBytes) {
  const ZPKDataPtr data = dataOf("abcdef");
  EXPECT_EQ(data->subdata({1, 3})->view(), "bcd");
  EXPECT_EQ(data->subdata({0, 6})->view(), "abcdef");
  EXPECT_EQ(data->subdata({6, 0})->length(), 0U);
  EXPECT_EQ(data->subdata({2, 0})->length(), 0U);
}

TEST(ZPKDataTest, APartOutsideTheDataIsNull) {
  const ZPKDataPtr data = dataOf("abc");
  EXPECT_EQ(data->subdata({0, 4}), nullptr);
  EXPECT_EQ(data->subdata({2, 2}), nullptr);
  EXPECT_EQ(data->subdata({4, 0}), nullptr);
  EXPECT_EQ(data->subdata({1, SIZE_MAX}), nullptr);
  EXPECT_EQ(data->subdata({ZPKNotFound, 0}), nullptr);
  EXPECT_EQ(data->subdata({SIZE_MAX, 1}), nullptr);
}

TEST(ZPKDataTest, FindReturnsTheRangeOfTheFirstOccurrence) {
  const ZPKDataPtr data = dataOf("one two two");
  EXPECT_EQ(data->find(*dataOf("two")), (ZPKRange{4, 3}));
  EXPECT_EQ(data->find(*data), (ZPKRange{0, 11}));
}

TEST(ZPKDataTest, FindReturnsNotFoundIfThereIsNone) {
  EXPECT_EQ(dataOf("abc")->find(*dataOf("x")).location, 0x7fffffffffffffffU);
  EXPECT_EQ(ZPKData::data()->find(*dataOf("x")), ZPKRange());
  EXPECT_EQ(dataOf("abc")->find(*ZPKData::data()), ZPKRange());
  EXPECT_EQ(ZPKData::data()->find(*ZPKData::data()), ZPKRange());
}

TEST(ZPKDataTest, FindSearchesOnlyWithinTheRange) {
  const ZPKDataPtr data = dataOf("two two two");
  const ZPKDataPtr pattern = dataOf("two");
  EXPECT_EQ(data->find(*pattern, {1, 10}), (ZPKRange{4, 3}));
  EXPECT_EQ(data->find(*pattern, {4, 3}), (ZPKRange{4, 3}));
  EXPECT_EQ(data->find(*pattern, {1, 5}), ZPKRange());
  EXPECT_EQ(data->find(*pattern, {5, 5}), ZPKRange());
}

TEST(ZPKDataTest, ARangeToSearchIsTruncatedAtTheEnd) {
  const ZPKDataPtr data = dataOf("two two");
  EXPECT_EQ(data->find(*dataOf("two"), {2, SIZE_MAX}), (ZPKRange{4, 3}));
  EXPECT_EQ(data->find(*dataOf("two"), {7, 3}), ZPKRange());
  EXPECT_EQ(data->find(*dataOf("two"), {SIZE_MAX, SIZE_MAX}), ZPKRange());
}

TEST(ZPKDataTest, EmptyDataDecodesToEmptyAndInvalidDataToNull) {
  EXPECT_EQ(ZPKData::data()->string(), "");
  EXPECT_EQ(dataOf("a\xC3\xA9z")->string(), "a\xC3\xA9z");
  EXPECT_EQ(dataOf("a\xFFz")->string(), std::nullopt);
  EXPECT_EQ(dataOf("a\xC3")->string(), std::nullopt);
  EXPECT_EQ(dataOf(std::string_view("a\0b", 3))->string(), std::string("a\0b", 3));
}

TEST(ZPKDataTest, DataIsEqualByItsBytes) {
  EXPECT_EQ(*dataOf("abc"), *dataOf("abc")->mutableCopy());
  EXPECT_NE(*dataOf("abc"), *dataOf("abd"));
  EXPECT_NE(*dataOf("abc"), *dataOf("ab"));
  EXPECT_EQ(*ZPKData::data(), *ZPKMutableData::data());
}

TEST(ZPKDataTest, SeveralThreadsMayUseTheSameData) {
  const ZPKDataPtr data = dataOf("one two");
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([data] {
      for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(data->copy()->find(*dataOf("two")).location, 4U);
        EXPECT_EQ(data->string(), "one two");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
