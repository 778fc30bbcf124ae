#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "DeviceRecording.h"
#include "Support/TemporaryFolder.h"

using namespace zephal;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class DeviceRecordingTest : public testing::Test {
 protected:
  // A log with the given entries, each "12:00:00.000 <pre---read>[1]: text" of one day.
  DeviceRecording recordingOf(const std::vector<std::string>& entries,
                              const RawLogOptions& options = RawLogOptions()) {
    std::ofstream log(path());
    for (const std::string& entry : entries) log << "\n2024-05-01 " << entry;
    log.close();
    return DeviceRecording::fromRawLog(path(), options);
  }

  std::string path() const { return _folder.pathOf("raw.log"); }

  static std::vector<std::string> textsOf(const DeviceRecording::Exchange& exchange) {
    std::vector<std::string> texts;
    for (const auto& piece : exchange.answer) texts.push_back(piece.bytes);
    return texts;
  }

 private:
  support::TemporaryFolder _folder;
};

TEST_F(DeviceRecordingTest, EachRequestHasTheAnswerThatFollowedIt) {
  const auto recording =
      recordingOf({"12:00:00.000 <pre---read>[1]: Welcome",
                   "12:00:00.000 <pre---read>[1]: ", "12:00:01.000 <pre--write>[1]: version",
                   "12:00:01.000 <pre--write>[1]: ", "12:00:01.002 <pre---read>[1]: 1.0",
                   "12:00:01.002 <pre---read>[1]: => ", "12:00:02.000 <pre--write>[1]: sta",
                   "12:00:02.004 <pre--write>[1]: tus", "12:00:02.004 <pre--write>[1]: ",
                   "12:00:02.010 <pre---read>[1]: rea", "12:00:02.011 <pre---read>[1]: dy"});
  ASSERT_EQ(recording.exchanges().size(), 3U);
  EXPECT_EQ(recording.exchanges()[0].request, "");
  EXPECT_THAT(textsOf(recording.exchanges()[0]), ElementsAre("Welcome\n"));
  EXPECT_EQ(recording.exchanges()[1].request, "version\n");
  EXPECT_THAT(textsOf(recording.exchanges()[1]), ElementsAre("1.0\n=> "));
  EXPECT_EQ(recording.exchanges()[2].request, "status\n");
  EXPECT_THAT(textsOf(recording.exchanges()[2]), ElementsAre("rea", "dy"));
}

TEST_F(DeviceRecordingTest, LineEndsAndPausesAreAsAsked) {
  const std::vector<std::string> entries = {
      "12:00:00.000 <pre--write>[1]: a",
      "12:00:00.000 <pre--write>[1]: ", "12:00:00.250 <pre---read>[1]: b",
      "12:00:00.250 <pre---read>[1]: c", "12:00:00.200 <pre---read>[1]: d"};
  const auto plain = recordingOf(entries).exchanges()[0];
  EXPECT_EQ(plain.answer[0].pause, 0ms);
  const auto slow = recordingOf(entries, {.lineEnd = "\r\n", .keepsPauses = true}).exchanges()[0];
  EXPECT_EQ(slow.request, "a\n");
  EXPECT_THAT(textsOf(slow), ElementsAre("b\r\nc", "d"));
  EXPECT_EQ(slow.answer[0].pause, 250ms);
  EXPECT_EQ(slow.answer[1].pause, 0ms);
}

TEST_F(DeviceRecordingTest, AKnownPromptBeginsNoNewLine) {
  const std::vector<std::string> entries = {
      "12:00:00.000 <pre--write>[1]: a", "12:00:00.000 <pre---read>[1]: b",
      "12:00:00.000 <pre---read>[1]: ",  "12:00:00.000 <pre---read>[1]: c",
      "12:00:00.000 <pre---read>[1]: ",  "12:00:00.000 <pre---read>[1]: => "};
  EXPECT_THAT(textsOf(recordingOf(entries).exchanges()[0]), ElementsAre("b\n\nc\n\n=> "));
  EXPECT_THAT(textsOf(recordingOf(entries, {.prompt = "=> "}).exchanges()[0]),
              ElementsAre("b\n\nc\n", "=> "));
}

TEST_F(DeviceRecordingTest, OnlyEntriesWithTheIdentifierCount) {
  const std::vector<std::string> entries = {"12:00:00.000 <pre--write>[1]: a",
                                            "12:00:00.000 <post-write>[1]: b",
                                            "12:00:00.001 <pre---read>[1]: c\nnot an entry"};
  const auto raw = recordingOf(entries).exchanges();
  ASSERT_EQ(raw.size(), 1U);
  EXPECT_EQ(raw[0].request, "a");
  EXPECT_THAT(textsOf(raw[0]), ElementsAre("c"));
  const auto other = recordingOf(entries, {.identifier = "post"}).exchanges();
  ASSERT_EQ(other.size(), 1U);
  EXPECT_EQ(other[0].request, "b");
}

TEST_F(DeviceRecordingTest, AFileThatIsNoLogIsRefused) {
  try {
    DeviceRecording::fromRawLog(path());
    FAIL();
  } catch (const std::system_error& failure) {
    EXPECT_EQ(failure.code().value(), ENOENT);
    EXPECT_THAT(failure.what(), HasSubstr(path()));
  }
  try {
    recordingOf({"12:00:00.000 <post-write>[1]: b"});
    FAIL();
  } catch (const std::runtime_error& failure) {
    EXPECT_THAT(failure.what(), HasSubstr("raw.log has no entries <pre---read> or <pre--write>"));
  }
}

}  // namespace
