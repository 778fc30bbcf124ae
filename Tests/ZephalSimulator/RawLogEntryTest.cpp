#include <gtest/gtest.h>

#include <string>

#include "RawLogEntry.h"

using zephal::RawLogEntry;
using namespace std::chrono_literals;

namespace {

TEST(RawLogEntryTest, AnEntryHasTimeDirectionProcessAndText) {
  const auto entry = RawLogEntry::of("2024-05-01 12:34:56.789 <pre--write>[4711]: version]: 1");
  ASSERT_TRUE(entry.has_value());
  EXPECT_EQ(entry->identifier, "pre-");
  EXPECT_TRUE(entry->isWrite);
  EXPECT_EQ(entry->process, "4711");
  EXPECT_EQ(entry->text, "version]: 1");
  const auto read = RawLogEntry::of("2024-05-02 00:00:00.000 <pre---read>[1]: ");
  ASSERT_TRUE(read.has_value());
  EXPECT_EQ(read->identifier, "pre-");
  EXPECT_FALSE(read->isWrite);
  EXPECT_EQ(read->text, "");
  EXPECT_EQ(read->time - entry->time, 24h - (12h + 34min + 56789ms));
}

TEST(RawLogEntryTest, AnythingElseIsNoEntry) {
  for (const char* line :
       {"", "version", "2024-05-01 12:34:56.789", "2024-05-01 12:34:56.789 pre--write[1]: x",
        "2024-05-01 12:34:56.789 <pre--write>[]: x", "2024-05-01 12:34:56.789 <pre--write>[a]: x",
        "2024-05-01 12:34:56.789 <pre--write>[1] x", "2024-05-01 12:34:56.789 <pre--moved>[1]: x",
        "2024-05-01 12:34:5a.789 <pre--write>[1]: x"}) {
    EXPECT_FALSE(RawLogEntry::of(line).has_value()) << line;
  }
}

}  // namespace
