// Searches that resume where the previous one stopped, whatever happens in between.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Support/Bytes.h"
#include "Utility/ZPKMutableData.h"

using namespace support;

namespace {

uint64_t resumeFind(const ZPKMutableDataPtr& buffer, std::string_view pattern) {
  return buffer->resumeFind(*dataOf(pattern)).location;
}

TEST(ZPKMutableDataSearchTest, FindSearchesTheWholeBuffer) {
  const ZPKMutableDataPtr buffer = unitOf("one two two");
  EXPECT_EQ(buffer->resumeFind(*ZPKData::dataWithString("two")), (ZPKRange{4, 3}));
  EXPECT_EQ(buffer->resumeFind(*ZPKData::dataWithString("three")), ZPKRange());
  EXPECT_EQ(buffer->resumeFind(*ZPKData::data()), ZPKRange());
  EXPECT_EQ(buffer->resumeFind(*buffer), (ZPKRange{0, 11}));
  EXPECT_EQ(ZPKMutableData().resumeFind(*ZPKData::dataWithString("a")), ZPKRange());
}

TEST(ZPKMutableDataSearchTest, ASearchOverARangeWorksAsForImmutableData) {
  const ZPKMutableDataPtr buffer = unitOf("two two");
  EXPECT_EQ(buffer->find(*ZPKData::dataWithString("two"), {1, 6}), (ZPKRange{4, 3}));
  EXPECT_EQ(buffer->find(*ZPKData::dataWithString("two"), {1, 5}), ZPKRange());
}

TEST(ZPKMutableDataSearchTest, AFoundPatternIsFoundAgain) {
  const ZPKMutableDataPtr buffer = unitOf("..");
  EXPECT_EQ(resumeFind(buffer, "=> "), ZPKNotFound);
  append(buffer, "=> => ");
  EXPECT_EQ(resumeFind(buffer, "=> "), 2U);
  EXPECT_EQ(resumeFind(buffer, "=> "), 2U);
}

// The needle arrives in two or three parts, with searches in between.
//
//     ....ne|edle       ....n|eed|le
TEST(ZPKMutableDataSearchTest, APatternSplitAnywhereAcrossAppendsIsFound) {
  const std::string needle = "needle";
  for (size_t before : {0U, 1U, 5U, 100U}) {
    for (size_t first = 0; first <= needle.size(); ++first) {
      for (size_t second = first; second <= needle.size(); ++second) {
        const ZPKMutableDataPtr buffer = unitOf(std::string(before, '.'));
        append(buffer, needle.substr(0, first));
        ASSERT_EQ(resumeFind(buffer, needle), first < needle.size() ? ZPKNotFound : before);
        append(buffer, needle.substr(first, second - first));
        ASSERT_EQ(resumeFind(buffer, needle), second < needle.size() ? ZPKNotFound : before);
        append(buffer, needle.substr(second));
        ASSERT_EQ(resumeFind(buffer, needle), before);
      }
    }
  }
}

TEST(ZPKMutableDataSearchTest, ADifferentPatternIsSearchedFromTheStart) {
  const ZPKMutableDataPtr buffer = unitOf("needle in a stack");
  EXPECT_EQ(resumeFind(buffer, "hay"), ZPKNotFound);
  EXPECT_EQ(resumeFind(buffer, "needle"), 0U);
  EXPECT_EQ(resumeFind(buffer, "nee"), 0U);
  append(buffer, " of hay");
  EXPECT_EQ(resumeFind(buffer, "hay"), 21U);
}

TEST(ZPKMutableDataSearchTest, AShorterOrLongerPatternIsADifferentOne) {
  const ZPKMutableDataPtr buffer = unitOf("abcab");
  EXPECT_EQ(resumeFind(buffer, "abcd"), ZPKNotFound);
  EXPECT_EQ(resumeFind(buffer, "abc"), 0U);
  EXPECT_EQ(resumeFind(buffer, "abcab"), 0U);
}

// Writes behind the buffer's back, which no caller may do. That the bytes go unnoticed shows where
// a search begins.
void writeUnnoticed(const ZPKMutableDataPtr& buffer, std::string_view bytes) {
  std::memcpy(const_cast<uint8_t*>(buffer->bytes()), bytes.data(), bytes.size());
}

TEST(ZPKMutableDataSearchTest, AfterAFailedSearchOnlyNewBytesAreExamined) {
  const ZPKMutableDataPtr buffer = ZPKMutableData::dataWithCapacity(100);
  append(buffer, "..........");
  EXPECT_EQ(resumeFind(buffer, "ab"), ZPKNotFound);
  writeUnnoticed(buffer, "ab");
  append(buffer, "..");
  EXPECT_EQ(resumeFind(buffer, "ab"), ZPKNotFound);
  append(buffer, "ab");
  EXPECT_EQ(resumeFind(buffer, "ab"), 12U);
  buffer->mutableBytes();
  EXPECT_EQ(resumeFind(buffer, "ab"), 0U);
}

TEST(ZPKMutableDataSearchTest, APlainFindExaminesAllBytesEveryTime) {
  const ZPKMutableDataPtr buffer = chunkOf("..........");
  EXPECT_EQ(resumeFind(buffer, "ab"), ZPKNotFound);
  writeUnnoticed(buffer, "ab");
  EXPECT_EQ(buffer->find(*dataOf("ab")), (ZPKRange{0, 2}));
  EXPECT_EQ(resumeFind(buffer, "ab"), ZPKNotFound);
  EXPECT_EQ(buffer->find(*dataOf("cd")), ZPKRange());
  EXPECT_EQ(resumeFind(buffer, "ab"), ZPKNotFound);
}

TEST(ZPKMutableDataSearchTest, FindSeesWhatAnOldPointerWrote) {
  const ZPKMutableDataPtr buffer = ZPKMutableData::dataWithCapacity(100);
  append(buffer, "..........");
  uint8_t* const pointer = buffer->mutableBytes();
  for (const char* const pattern : {"ab", "cd", "ab"}) {
    EXPECT_EQ(resumeFind(buffer, pattern), ZPKNotFound);
    std::memcpy(pointer + 4, pattern, 2);
    EXPECT_EQ(resumeFind(buffer, pattern), 4U);
  }
}

// None of these edits moves the bytes, and most callers do not know which edits do.
TEST(ZPKMutableDataSearchTest, SearchesSeeAnOldPointersWritesAfterInPlaceEdits) {
  using Edit = std::function<void(const ZPKMutableDataPtr&)>;
  const std::vector<std::pair<const char*, Edit>> edits = {
      {"append", [](const auto& buffer) { append(buffer, "..."); }},
      {"setLength", [](const auto& buffer) { buffer->setLength(9); }},
      {"zeroRange",
       [](const auto& buffer) {
         buffer->zeroRange({4, 1});
       }},
      {"setContents", [](const auto& buffer) { buffer->setContents(*unitOf("........")); }},
      {"dropFirst", [](const auto& buffer) { buffer->dropFirst(0); }},
  };
  for (const auto& [name, edit] : edits) {
    const ZPKMutableDataPtr buffer = ZPKMutableData::dataWithCapacity(100);
    append(buffer, "..........");
    uint8_t* const pointer = buffer->mutableBytes();
    edit(buffer);
    ASSERT_EQ(resumeFind(buffer, "ab"), ZPKNotFound);
    std::memcpy(pointer, "ab", 2);
    EXPECT_EQ(resumeFind(buffer, "ab"), 0U) << name;
  }
}

TEST(ZPKMutableDataSearchTest, APointerFollowsItsBytesToAnotherBuffer) {
  const ZPKMutableDataPtr buffer = chunkOf("..........");
  const ZPKMutableDataPtr other = ZPKMutableData::data();
  uint8_t* const pointer = buffer->mutableBytes();
  other->appendGivingUp(buffer.get());
  append(buffer, "..........");
  ASSERT_EQ(resumeFind(other, "ab"), ZPKNotFound);
  ASSERT_EQ(resumeFind(buffer, "ab"), ZPKNotFound);
  std::memcpy(pointer, "ab", 2);
  writeUnnoticed(buffer, "ab");
  EXPECT_EQ(resumeFind(other, "ab"), 0U);
  EXPECT_EQ(resumeFind(buffer, "ab"), ZPKNotFound);
}

TEST(ZPKMutableDataSearchTest, SearchesAreRememberedAgainAfterTheBytesHaveMoved) {
  using Move = std::function<void(const ZPKMutableDataPtr&)>;
  const std::vector<std::pair<const char*, Move>> moves = {
      {"growth", [](const auto& buffer) { append(buffer, std::string(5000, '.')); }},
      {"growth with a dropped front",
       [](const auto& buffer) {
         buffer->dropFirst(100);
         append(buffer, std::string(5000, '.'));
       }},
      {"use of the dropped front",
       [](const auto& buffer) {
         buffer->dropFirst(1200);
         append(buffer, std::string(100, '.'));
       }},
      {"release of room", [](const auto& buffer) { buffer->dropFirst(1990); }},
      {"swap", [](const auto& buffer) { buffer->swap(*chunkOf("..........")); }},
  };
  for (const auto& [name, move] : moves) {
    const ZPKMutableDataPtr buffer = chunkOf(std::string(2000, '.'));
    buffer->mutableBytes();
    move(buffer);
    ASSERT_EQ(resumeFind(buffer, "ab"), ZPKNotFound);
    writeUnnoticed(buffer, "ab");
    EXPECT_EQ(resumeFind(buffer, "ab"), ZPKNotFound) << name;
  }
}

TEST(ZPKMutableDataSearchTest, EveryEditExceptAnAppendForgetsAFailedSearch) {
  const std::string zeros(2, '\0');
  using Edit = std::function<void(const ZPKMutableDataPtr&)>;
  const std::vector<std::pair<const char*, Edit>> edits = {
      {"mutableBytes", [](const auto& buffer) { std::memset(buffer->mutableBytes() + 1, 0, 2); }},
      {"zeroRange",
       [](const auto& buffer) {
         buffer->zeroRange({1, 2});
       }},
      {"setLength",
       [](const auto& buffer) {
         buffer->setLength(1);
         buffer->setLength(10);
       }},
      {"setContents",
       [](const auto& buffer) {
         buffer->setContents(*unitOf({".\0\0.......", 10}));
       }},
      {"swap",
       [](const auto& buffer) {
         buffer->swap(*unitOf({".\0\0.......", 10}));
       }},
      {"appendGivingUp",
       [](const auto& buffer) {
         buffer->setLength(0);
         buffer->appendGivingUp(unitOf({".\0\0.......", 10}).get());
       }},
      {"dropFirst",
       [](const auto& buffer) {
         buffer->dropFirst(9);
         append(buffer, {"\0\0.......", 9});
       }},
      {"takeThrough",
       [](const auto& buffer) {
         buffer->append("#", 1);
         buffer->takeThrough(*unitOf("#"));
         append(buffer, {".\0\0.......", 10});
       }},
      {"takeFirst",
       [](const auto& buffer) {
         buffer->takeFirst(9);
         append(buffer, {"\0\0.......", 9});
       }},
  };
  for (const auto& [name, edit] : edits) {
    const ZPKMutableDataPtr buffer = unitOf("..........");
    ASSERT_EQ(resumeFind(buffer, zeros), ZPKNotFound);
    edit(buffer);
    EXPECT_EQ(resumeFind(buffer, zeros), 1U) << name;
  }
}

TEST(ZPKMutableDataSearchTest, ATakenUnitForgetsItsFormerBuffersSearch) {
  const ZPKMutableDataPtr buffer = unitOf("..........");
  EXPECT_EQ(resumeFind(buffer, "ab"), ZPKNotFound);
  const ZPKMutableDataPtr first = buffer->takeFirst(10);
  first->setContents(*ZPKData::dataWithString(".ab......."));
  EXPECT_EQ(resumeFind(first, "ab"), 1U);
  append(buffer, ".ab.......");
  EXPECT_EQ(resumeFind(buffer, "ab"), 1U);
}

TEST(ZPKMutableDataSearchTest, ABufferMayBeThePatternOfAnother) {
  const ZPKMutableDataPtr pattern = unitOf("ab");
  const ZPKMutableDataPtr buffer = unitOf("..........");
  EXPECT_EQ(buffer->resumeFind(*pattern), ZPKRange());
  pattern->setContents(*ZPKData::dataWithString("."));
  EXPECT_EQ(buffer->resumeFind(*pattern), (ZPKRange{0, 1}));
}

}  // namespace
