#include <gtest/gtest.h>

#include "ZephalConsole/Internal/Inbox.h"

namespace {

using zephal::internal::Inbox;
using namespace std::chrono_literals;

void append(Inbox& inbox, std::string_view bytes, Inbox::Time time = Inbox::Time()) {
  inbox.room(bytes.size()) += bytes;
  inbox.appended(time);
}

TEST(Inbox, GivesWhatIsUnread) {
  Inbox inbox(100);
  append(inbox, "one two");
  inbox.readUpTo(4);
  append(inbox, " three");
  EXPECT_EQ(inbox.text(), "two three");
  EXPECT_EQ(inbox.begin(), 4U);
  EXPECT_EQ(inbox.end(), 13U);
}

TEST(Inbox, DropsTheOldestBeyondItsLimitAndCountsThem) {
  Inbox inbox(4);
  append(inbox, "abc");
  append(inbox, "defg");
  EXPECT_EQ(inbox.text(), "defg");
  EXPECT_EQ(inbox.begin(), 3U);
  EXPECT_EQ(inbox.lost(), 3U);
  EXPECT_EQ(inbox.takeLoss(), 3U);
  EXPECT_EQ(inbox.takeLoss(), 0U);
  EXPECT_EQ(inbox.lost(), 3U);
}

TEST(Inbox, TellsWhenEachByteArrived) {
  Inbox inbox(100);
  append(inbox, "ab", Inbox::Time(1s));
  append(inbox, "cd", Inbox::Time(2s));
  EXPECT_EQ(inbox.timeOf(1), Inbox::Time(1s));
  EXPECT_EQ(inbox.timeOf(2), Inbox::Time(1s));
  EXPECT_EQ(inbox.timeOf(3), Inbox::Time(2s));
  inbox.readUpTo(3);
  EXPECT_EQ(inbox.timeOf(4), Inbox::Time(2s));
}

TEST(Inbox, KeepsOnlyAFewTimesItsLimitInMemory) {
  Inbox inbox(1 << 20);
  for (int i = 0; i < 100000; ++i) append(inbox, std::string(100, 'x'), Inbox::Time(i * 1s));
  EXPECT_EQ(inbox.text().size(), size_t{1} << 20);
  EXPECT_LE(inbox.room(0).capacity(), size_t{5} << 20);
}

TEST(Inbox, GivesALargeBufferBackOnceItIsRead) {
  Inbox inbox(1 << 20);
  append(inbox, std::string(1 << 20, 'x'));
  inbox.readUpTo(inbox.end());
  EXPECT_LT(inbox.room(0).capacity(), size_t{1} << 10);
}

TEST(Inbox, HandsOverALongTextAndKeepsTheRest) {
  Inbox inbox(8 << 20);
  const std::string text = std::string(3 << 20, 'x') + "rest";
  append(inbox, "read", Inbox::Time(1s));
  inbox.readUpTo(4);
  append(inbox, text, Inbox::Time(2s));
  EXPECT_EQ(inbox.take(inbox.end() - 4), text.substr(0, text.size() - 4));
  EXPECT_EQ(inbox.text(), "rest");
  EXPECT_EQ(inbox.end() - inbox.begin(), 4U);
  EXPECT_EQ(inbox.timeOf(inbox.end()), Inbox::Time(2s));
  append(inbox, " and more");
  EXPECT_EQ(inbox.text(), "rest and more");
  EXPECT_EQ(inbox.take(inbox.begin() + 5), "rest ");
  EXPECT_EQ(inbox.text(), "and more");
}

// Whoever keeps many answers would otherwise keep much memory that nobody needs.
TEST(Inbox, HandsOverNoBufferThatIsMuchLargerThanItsText) {
  Inbox inbox(64 << 20);
  for (size_t length = size_t{1} << 10; length < (size_t{8} << 20); length += length / 3) {
    for (size_t done = 0; done < length; done += 1024) append(inbox, std::string(1024, 'x'));
    const std::string taken = inbox.take(inbox.begin() + length);
    EXPECT_LE(taken.capacity(), 2 * taken.size());
  }
}

}  // namespace
