#include <gtest/gtest.h>

#include "Support/LogFile.h"
#include "Support/TemporaryFolder.h"
#include "ZephalConsole/Internal/LineLog.h"

namespace {

using support::TemporaryFolder;
using support::textsOfLog;
using zephal::internal::LineLog;
using zephal::internal::TrafficLog;
using Lines = std::vector<std::string>;

TEST(LineLog, HasOneEntryForEachLineHoweverItArrives) {
  const TemporaryFolder folder;
  LineLog log(TrafficLog(folder.pathOf("log"), "post"));
  log.open("unix:///x");
  for (const char byte : std::string_view("one\r\ntwo\n")) log.read({&byte, 1});
  log.read("three\nfour\n");
  log.close();
  EXPECT_EQ(textsOfLog(folder.pathOf("log")),
            (Lines{"post--read: one", "post--read: two", "post--read: three", "post--read: four"}));
}

TEST(LineLog, WritesABegunLineBeforeWhatIsWrittenNext) {
  const TemporaryFolder folder;
  LineLog log(TrafficLog(folder.pathOf("log"), "post"));
  log.open("unix:///x");
  log.read("login: ");
  log.wrote("root\n");
  log.close();
  EXPECT_EQ(textsOfLog(folder.pathOf("log")), (Lines{"post--read: login: ", "post-write: root"}));
}

TEST(LineLog, WritesALineThatNeverEndsInPieces) {
  const TemporaryFolder folder;
  LineLog log(TrafficLog(folder.pathOf("log"), "post"));
  log.open("unix:///x");
  for (int i = 0; i < 10000; ++i) log.read("x");
  log.close();
  const Lines lines = textsOfLog(folder.pathOf("log"));
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0], "post--read: " + std::string(4096, 'x'));
}

TEST(LineLog, GoesOnInTheSameFileAfterItWasClosed) {
  const TemporaryFolder folder;
  LineLog log(TrafficLog(folder.pathOf("log"), "post"));
  for (const char* line : {"one\n", "two\n"}) {
    log.open("unix:///x");
    log.read(line);
    log.close();
  }
  EXPECT_EQ(textsOfLog(folder.pathOf("log")), (Lines{"post--read: one", "post--read: two"}));
}

}  // namespace
