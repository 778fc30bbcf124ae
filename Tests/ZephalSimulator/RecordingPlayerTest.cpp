#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "RecordingPlayer.h"

using namespace zephal;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class RecordingPlayerTest : public testing::Test {
 protected:
  std::string textOf(const DeviceReaction& reaction) {
    std::string text;
    for (const DeviceStep& step : reaction.steps) text += step.bytes;
    for (const std::string& command : reaction.unknownCommands) unknown.push_back(command);
    return text;
  }

  std::string start() { return textOf(player.start(behaviour)); }
  std::string send(std::string_view bytes) { return textOf(player.take(bytes, behaviour)); }

  const DeviceBehaviour behaviour{};
  std::vector<std::string> unknown;
  RecordingPlayer player{DeviceRecording({{"", {{"Welcome\n", 0ms}}},
                                          {"count\n", {{"1\n", 3ms}, {"=> ", 5ms}}},
                                          {"version\n", {{"1.0\n=> ", 0ms}}},
                                          {"count\n", {{"2\n=> ", 0ms}}}})};
};

TEST_F(RecordingPlayerTest, RequestsAreAnsweredInTheirOrder) {
  EXPECT_EQ(start(), "Welcome\n");
  EXPECT_EQ(send("count\n"), "1\n=> ");
  EXPECT_EQ(send("version\n"), "1.0\n=> ");
  EXPECT_EQ(send("count\n"), "2\n=> ");
  EXPECT_THAT(unknown, IsEmpty());
}

TEST_F(RecordingPlayerTest, ARequestOutOfItsOrderIsLookedForAheadThenFromTheStart) {
  EXPECT_EQ(send("version\n"), "1.0\n=> ");
  EXPECT_EQ(send("version\n"), "1.0\n=> ");
  EXPECT_EQ(send("count\n"), "2\n=> ");
  EXPECT_EQ(send("count\n"), "1\n=> ");
  EXPECT_EQ(send("count\n"), "2\n=> ");
}

TEST_F(RecordingPlayerTest, AnUnknownLineIsPassedOver) {
  EXPECT_EQ(send("what\ncount\n"), "1\n=> ");
  EXPECT_EQ(send("counter\n"), "");
  EXPECT_EQ(send("\n"), "");
  EXPECT_EQ(send("version\n"), "1.0\n=> ");
  EXPECT_THAT(unknown, ElementsAre("what", "counter", ""));
}

TEST_F(RecordingPlayerTest, LineBreaksAreTheSameInEveryFormAndAtEverySplit) {
  for (const std::string lineEnd : {"\n", "\r", "\r\n"}) {
    const std::string bytes = "count" + lineEnd + "version" + lineEnd;
    for (size_t cut = 0; cut <= bytes.size(); ++cut) {
      start();
      const std::string first = send(bytes.substr(0, cut));
      EXPECT_EQ(first + send(bytes.substr(cut)), "1\n=> 1.0\n=> ") << cut;
    }
  }
  EXPECT_THAT(unknown, IsEmpty());
}

TEST_F(RecordingPlayerTest, TheExpectedRequestIsWaitedForBeforeAShorterOne) {
  RecordingPlayer other{DeviceRecording({{"a", {{"short", 0ms}}}, {"ab", {{"long", 0ms}}}})};
  EXPECT_EQ(textOf(other.take("a", behaviour)), "short");
  EXPECT_EQ(textOf(other.take("a", behaviour)), "");
  EXPECT_EQ(textOf(other.take("b", behaviour)), "long");
}

TEST_F(RecordingPlayerTest, PiecesKeepTheirPauses) {
  const DeviceReaction reaction = player.take("count\n", behaviour);
  ASSERT_EQ(reaction.steps.size(), 2U);
  EXPECT_EQ(reaction.steps[0].pause, 3ms);
  EXPECT_EQ(reaction.steps[1].pause, 5ms);
  EXPECT_THAT(reaction.commands, ElementsAre("count"));
}

TEST_F(RecordingPlayerTest, ARestartBeginsAnew) {
  EXPECT_EQ(send("count\nversion\ncou"), "1\n=> 1.0\n=> ");
  EXPECT_EQ(start(), "Welcome\n");
  EXPECT_EQ(send("count\n"), "1\n=> ");
}

}  // namespace
