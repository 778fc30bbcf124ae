#include <gtest/gtest.h>

#include "Support/LogFile.h"
#include "Support/TemporaryFolder.h"
#include "ZephalConsole/Errors.h"
#include "ZephalConsole/Internal/TrafficLog.h"

namespace {

using support::TemporaryFolder;
using support::textsOfLog;
using zephal::internal::TrafficLog;

TEST(TrafficLog, HasWhatWasReadAndWritten) {
  const TemporaryFolder folder;
  TrafficLog log(folder.pathOf("log"), "pre-");
  log.open("unix:///x");
  log.wrote("version\n");
  log.read("1.0\n> ");
  log.read("");
  log.close();
  EXPECT_EQ(textsOfLog(folder.pathOf("log")),
            (std::vector<std::string>{"pre--write: version", "pre--write: ", "pre---read: 1.0",
                                      "pre---read: > "}));
}

TEST(TrafficLog, DoesNothingWithoutAPath) {
  TrafficLog log("", "pre-");
  log.open("unix:///x");
  log.read("bytes");
  log.close();
}

TEST(TrafficLog, SaysWhyItCannotBeOpened) {
  const TemporaryFolder folder;
  TrafficLog log(folder.path(), "pre-");
  try {
    log.open("unix:///x");
    FAIL();
  } catch (const zephal::OpenError& error) {
    EXPECT_EQ(error.domain(), "POSIX");
    EXPECT_EQ(error.code(), EISDIR);
    EXPECT_NE(std::string(error.what()).find("cannot open the log"), std::string::npos);
  }
}

TEST(TrafficLog, FailsInAFolderThatDoesNotExist) {
  const TemporaryFolder folder;
  TrafficLog log(folder.pathOf("none/log"), "pre-");
  EXPECT_THROW(log.open("unix:///x"), zephal::OpenError);
}

}  // namespace
