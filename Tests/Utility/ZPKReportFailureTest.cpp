#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Support/ErrorExpectations.h"
#include "Support/LocationPrefix.h"
#include "Utility/ZPKReportFailure.h"

using namespace support;

namespace {

using testing::ElementsAre;

constexpr const char* kDeviceText = "%s%n%@%%%d %1$s";

TEST(ZPKReportFailureTest, ItFillsTheSlotAndLogsTheSameTextOnce) {
  const LogCapture log;
  ZPKErrorPtr error;
  ZPKReportFailure(&error, kZPICommunicationDomain, 4, {"close"}, "Error closing port - %s(%d)",
                   "Bad file descriptor", 9);
  expectFailure(error, log,
                {"zephal-communication", 4, "Error closing port - Bad file descriptor(9)", "close",
                 "ZPKReportFailureTest.cpp"});
}

TEST(ZPKReportFailureTest, TheDomainsHaveTheirFullNames) {
  const LogCapture log;
  std::vector<std::string> domains;
  for (const char* domain : {kZPICommunicationDomain, kZPICommChannelDomain,
                             kZPICommLoggerChannelDomain, kZPIDataConversionDomain}) {
    ZPKErrorPtr error;
    ZPKReportFailure(&error, domain, 1, {"f"}, "text");
    domains.push_back(error->domain());
  }
  EXPECT_THAT(
      domains,
      ElementsAre("zephalbench.zephal-communication", "zephalbench.zephal-commchannel",
                  "zephalbench.zephal-commloggerchannel", "zephalbench.zephal-dataconversion"));
}

TEST(ZPKReportFailureTest, ANullSlotStillLogsTheLine) {
  const LogCapture log;
  ZPKReportFailure(nullptr, kZPICommunicationDomain, 2, {"close"}, "Device Already %s", "Closed");
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, "Device Already Closed"}));
}

TEST(ZPKReportFailureTest, AnOlderErrorIsReplaced) {
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  ZPKReportFailure(&error, kZPICommChannelDomain, 304, {"f"}, "newer");
  expectFailure(error, log, {"zephal-commchannel", 304, "newer", "f", "ZPKReportFailureTest.cpp"});
  EXPECT_EQ(olderError()->description(), "an older error");
}

TEST(ZPKReportFailureTest, TheSlotIsFilledBeforeTheLineIsLogged) {
  ZPKErrorPtr error;
  std::string seenInSlot;
  ZPKLoggingSetSink([&](int, std::string_view) {
    seenInSlot = error == nullptr ? "none" : error->description();
  });
  ZPKReportFailure(&error, kZPICommunicationDomain, 1, {"f"}, "text");
  ZPKLoggingSetSink(nullptr);
  EXPECT_EQ(seenInSlot, "text");
}

TEST(ZPKReportFailureTest, TheLocationNamesVersionFileFunctionAndLine) {
  const LogCapture log;
  ZPKErrorPtr error;
  const int line = __LINE__ + 1;
  ZPKReportFailure(&error, kZPICommunicationDomain, 1, {"createUARTChannel"}, "text");
  EXPECT_EQ(error->location(), locationPrefix() + "ZPKReportFailureTest.cpp:createUARTChannel:" +
                                   std::to_string(line));
}

TEST(ZPKReportFailureTest, ColonsOfAFunctionNameAreNotEscaped) {
  const LogCapture log;
  ZPKErrorPtr error;
  ZPKReportFailure(&error, kZPICommChannelDomain, 1, {"-[ZPKCommStack writeData:error:]"}, "text");
  EXPECT_THAT(error->location(),
              testing::StartsWith(locationPrefix() +
                                  "ZPKReportFailureTest.cpp:-[ZPKCommStack writeData:error:]:"));
}

TEST(ZPKReportFailureTest, TheFileIsItsBaseNameWithTheExtension) {
  EXPECT_EQ(ZPIErrorLocation({"f", "/a/Data Channel Internal/b.cpp", 12}),
            locationPrefix() + "b.cpp:f:12");
  EXPECT_EQ(ZPIErrorLocation({"f", "b.mm", 1}), locationPrefix() + "b.mm:f:1");
}

TEST(ZPKReportFailureTest, PercentSignsInTheLocationAreNotDirectives) {
  EXPECT_EQ(ZPIErrorLocation({"%@%s", "%d.cpp", 3}), locationPrefix() + "%d.cpp:%@%s:3");
}

TEST(ZPKReportFailureTest, TheUserInformationHasTwoEntries) {
  const LogCapture log;
  ZPKErrorPtr error;
  ZPKReportFailure(&error, kZPICommunicationDomain, 1, {"f"}, "text");
  EXPECT_EQ(error->userInfo().size(), 2U);
  EXPECT_TRUE(error->userInfo().contains("ErrorLocation"));
}

TEST(ZPKReportFailureTest, DeviceDataFullOfDirectivesIsUnchanged) {
  const LogCapture log;
  ZPKErrorPtr error;
  ZPKReportFailure(&error, kZPICommChannelDomain, 309, {"f"}, "%@",
                   std::optional<std::string>(kDeviceText));
  EXPECT_EQ(error->description(), kDeviceText);
  EXPECT_THAT(log.texts(), ElementsAre(kDeviceText));
}

TEST(ZPKReportFailureTest, LineFeedsAndNullsAppearAlikeInBothTexts) {
  const LogCapture log;
  ZPKErrorPtr error;
  ZPKReportFailure(&error, kZPICommChannelDomain, 308, {"f"},
                   "Unable to parse response\nregex:%@\nresponse:%@\n", nullptr, "a\r\nb");
  EXPECT_EQ(error->description(), "Unable to parse response\nregex:(null)\nresponse:a\r\nb\n");
  EXPECT_THAT(log.texts(), ElementsAre(error->description()));
}

TEST(ZPKReportFailureTest, AnArgumentMayBelongToTheReplacedError) {
  const LogCapture log;
  ZPKErrorPtr error = ZPKError::init("a domain that is too long for a small string", 1, {});
  ZPKReportFailure(&error, kZPICommunicationDomain, 5, {"f"}, "read failed with error %s (%d)",
                   error->domain(), error->code());
  EXPECT_EQ(error->description(),
            "read failed with error a domain that is too long for a small string (1)");
  EXPECT_THAT(log.texts(), ElementsAre(error->description()));
}

TEST(ZPKReportFailureTest, ErrnoIsKept) {
  const LogCapture log;
  ZPKErrorPtr error;
  errno = ENXIO;
  ZPKReportFailure(&error, kZPICommunicationDomain, 1, {"f"}, "text");
  EXPECT_EQ(errno, ENXIO);
}

TEST(ZPKReportFailureTest, SeveralThreadsReportAtTheSameTime) {
  constexpr size_t kThreads = 4;
  constexpr int kFailures = 100;
  const LogCapture log;
  std::array<int, kThreads> wrong{};
  std::vector<std::thread> threads;
  for (size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([thread, &wrong] {
      for (int i = 0; i < kFailures; ++i) {
        ZPKErrorPtr error;
        ZPKReportFailure(&error, kZPICommunicationDomain, i, {"f"}, "%d of %d", i, thread);
        const std::string expected = std::to_string(i) + " of " + std::to_string(thread);
        if (error->code() != i || error->description() != expected) ++wrong[thread];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(wrong, testing::Each(0));
  EXPECT_EQ(log.lines().size(), kThreads * kFailures);
}

TEST(ZPKReportFailureTest, TheErrorTextIsTheSystemsOwn) {
  EXPECT_EQ(ZPIErrorText(ENOENT), std::strerror(ENOENT));
  EXPECT_EQ(ZPIErrorText(0), std::strerror(0));
  EXPECT_EQ(ZPIErrorText(99999), std::strerror(99999));
  EXPECT_EQ(ZPIErrorText(-1), std::strerror(-1));
}

TEST(ZPKReportFailureTest, ASystemErrorHasThePOSIXDomainAndLogsNothing) {
  const LogCapture log;
  const ZPKErrorPtr error = ZPISystemError(EACCES, {"open"});
  EXPECT_EQ(error->domain(), "POSIX");
  EXPECT_EQ(error->code(), EACCES);
  EXPECT_EQ(error->description(), std::strerror(EACCES));
  EXPECT_THAT(error->location(),
              testing::StartsWith(locationPrefix() + "ZPKReportFailureTest.cpp:open:"));
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
