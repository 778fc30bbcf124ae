#include <gtest/gtest.h>

#include "Soak/LogContent.h"
#include "Support/Files.h"
#include "Support/TemporaryFolder.h"

namespace {

using soak::LogContent;

LogContent contentOf(std::string_view text) {
  const support::TemporaryFolder folder;
  support::writeFile(folder.pathOf("log"), text);
  return LogContent::ofFile(folder.pathOf("log"));
}

TEST(LogContentTest, DirectionsAreSeparate) {
  const LogContent content = contentOf(
      "\n2024-05-01 12:00:00.250 <pre--write>[4711]: version"
      "\n2024-05-01 12:00:00.250 <pre--write>[4711]: "
      "\n2024-05-01 12:00:00.310 <pre---read>[4711]: 1.0"
      "\n2024-05-01 12:00:00.310 <pre---read>[4711]: => ");
  EXPECT_EQ(content.written, "version");
  EXPECT_EQ(content.writtenLines, 2U);
  EXPECT_EQ(content.read, "1.0=> ");
  EXPECT_EQ(content.readLines, 2U);
  EXPECT_EQ(content.torn, 0U);
}

TEST(LogContentTest, LinesWithoutABeginningAreTorn) {
  EXPECT_EQ(contentOf("\n2024-05-01 12:00:00.310 <pre---read>[4711]: 1.0\ntext").torn, 1U);
  EXPECT_EQ(contentOf("\n2024-05-01 12:00:00.310 <pre---read").torn, 1U);
  EXPECT_EQ(contentOf("x2024-05-01 12:00:00.310 <pre---read>[4711]: 1.0").torn, 1U);
}

TEST(LogContentTest, AMissingFileIsEmpty) {
  EXPECT_EQ(LogContent::ofFile("/nonexistent").readLines, 0U);
}

}  // namespace
