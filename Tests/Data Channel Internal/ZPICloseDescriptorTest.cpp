#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "Data Channel Internal/ZPICloseDescriptor.h"
#include "Support/ErrorExpectations.h"
#include "Support/OpenDescriptors.h"
#include "Support/SystemCalls.h"

using namespace support;

namespace {

using testing::ElementsAre;

TEST(ZPICloseDescriptorTest, ClosesWithOneCallAndLeavesTheSlot) {
  LogCapture log;
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ZPKErrorPtr error = olderError();
  {
    const SystemCalls calls;
    EXPECT_TRUE(ZPICloseDescriptor(ends[0], &error, {"site"}));
    EXPECT_THAT(calls.texts(), ElementsAre("close"));
  }
  EXPECT_FALSE(isOpenDescriptor(ends[0]));
  EXPECT_EQ(error, olderError());
  EXPECT_TRUE(log.lines().empty());
  ::close(ends[1]);
}

TEST(ZPICloseDescriptorTest, AFailureIsReportedAtTheCallersSite) {
  const std::string text = std::string("Error closing port - ") + std::strerror(EBADF) + "(9)";
  LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(ZPICloseDescriptor(-1, &error, {"site", "/some/folder/File.cpp", 12}));
  expectFailure(error, log, {"zephal-communication", 4, text, "site", "File.cpp"});
  log.clear();
  EXPECT_FALSE(ZPICloseDescriptor(-1, nullptr, {"site"}));
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, text}));
}

TEST(ZPICloseDescriptorTest, TheErrnoOfTheCloseIsTheOneReported) {
  LogCapture log;
  SystemCalls calls;
  calls.fail("close", EIO);
  ZPKErrorPtr error;
  EXPECT_FALSE(ZPICloseDescriptor(-1, &error, {"site"}));
  EXPECT_EQ(error->description(),
            std::string("Error closing port - ") + std::strerror(EIO) + "(5)");
  EXPECT_EQ(calls.count("close"), 1U);
}

}  // namespace
