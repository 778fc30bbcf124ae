#include "Support/ErrorExpectations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "Support/LocationPrefix.h"

namespace support {

namespace {

bool isLineNumber(const std::string& text) {
  return !text.empty() && text.front() != '0' &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

void expectError(const ZPKErrorPtr& error, const ExpectedFailure& expected) {
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), "zephalbench." + expected.shortDomain);
  EXPECT_EQ(error->code(), expected.code);
  EXPECT_EQ(error->description(), expected.description);
  EXPECT_EQ(error->userInfo().size(), 2U);
  const std::string start = locationPrefix() + expected.file + ":" + expected.function + ":";
  const std::string location = error->location();
  ASSERT_TRUE(location.starts_with(start)) << location << "\ndoes not begin with\n" << start;
  EXPECT_TRUE(isLineNumber(location.substr(start.size()))) << location;
}

void expectFailure(const ZPKErrorPtr& error, const LogCapture& log,
                   const ExpectedFailure& expected) {
  expectError(error, expected);
  EXPECT_THAT(log.lines(), testing::ElementsAre(LogLine{0, expected.description}));
}

ZPKErrorPtr olderError() {
  static const ZPKErrorPtr error =
      ZPKError::init("older", 1, {{std::string(ZPKErrorDescriptionKey), "an older error"}});
  return error;
}

}  // namespace support
