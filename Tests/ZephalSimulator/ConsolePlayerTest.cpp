#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ConsolePlayer.h"

using namespace zephal;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ConsolePlayerTest : public testing::Test {
 protected:
  static std::vector<std::string> partsOf(const DeviceReaction& reaction) {
    std::vector<std::string> parts;
    for (const DeviceStep& step : reaction.steps) parts.push_back(step.bytes);
    return parts;
  }

  static std::string textOf(const DeviceReaction& reaction) {
    std::string text;
    for (const DeviceStep& step : reaction.steps) text += step.bytes;
    return text;
  }

  std::string start() { return textOf(player.start(behaviour)); }
  std::string send(std::string_view bytes) { return textOf(player.take(bytes, behaviour)); }

  DeviceBehaviour behaviour{.responses = {{"version", "1.0\n"}}};
  ConsolePlayer player;
};

TEST_F(ConsolePlayerTest, ACommandIsAnsweredWithItsTextAndThePrompt) {
  EXPECT_EQ(start(), "");
  const DeviceReaction reaction = player.take("version\n", behaviour);
  EXPECT_EQ(textOf(reaction), "1.0\n=> ");
  EXPECT_THAT(reaction.commands, ElementsAre("version"));
  EXPECT_THAT(reaction.unknownCommands, IsEmpty());
}

TEST_F(ConsolePlayerTest, CommandsAreFoundHoweverTheyAreSplit) {
  behaviour.terminator = "\r\n";
  const std::string bytes = "version\r\nother\r\n\r\n";
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    std::vector<std::string> commands;
    for (const std::string& part : {bytes.substr(0, cut), bytes.substr(cut)}) {
      for (const std::string& command : player.take(part, behaviour).commands) {
        commands.push_back(command);
      }
    }
    EXPECT_THAT(commands, ElementsAre("version", "other", "")) << cut;
  }
}

TEST_F(ConsolePlayerTest, TheBeginningOfACommandIsForgottenWithItsConnection) {
  EXPECT_EQ(send("ver"), "");
  player.endConnection();
  EXPECT_EQ(send("version\n"), "1.0\n=> ");
}

TEST_F(ConsolePlayerTest, AnUnknownCommandIsNotedAndAnsweredWithThePrompt) {
  const DeviceReaction reaction = player.take("what\n\n", behaviour);
  EXPECT_THAT(reaction.unknownCommands, ElementsAre("what"));
  EXPECT_EQ(textOf(reaction), "=> => ");
}

TEST_F(ConsolePlayerTest, TheFunctionAnswersWhatTheListDoesNot) {
  behaviour.respond = [](const std::string& command) { return command + "!"; };
  EXPECT_EQ(send("version\nwhat\n"), "1.0\n=> what!=> ");
}

TEST_F(ConsolePlayerTest, AnAnswerMayHaveItsOwnPromptDelayOrEnd) {
  behaviour.delay = 3ms;
  DeviceAnswer renamed = "ok\n";
  renamed.prompt = "# ";
  behaviour.responses = {{"rename", renamed},
                         {"hang", DeviceAnswer::silence()},
                         {"wait", DeviceAnswer::after(9ms, "done\n")},
                         {"leave", DeviceAnswer::hangUp("bye\n")},
                         {"reboot", DeviceAnswer::reboot("bye\n", 7ms)}};
  EXPECT_EQ(send("rename\n"), "ok\n# ");
  EXPECT_THAT(player.take("hang\n", behaviour).steps, IsEmpty());
  EXPECT_EQ(player.take("wait\n", behaviour).steps[0].pause, 9ms);
  EXPECT_EQ(player.take("rename\n", behaviour).steps[0].pause, 3ms);

  const DeviceReaction left = player.take("leave\n", behaviour);
  EXPECT_EQ(textOf(left), "bye\n");
  EXPECT_EQ(left.steps.back().ending, DeviceEnding::kHangUp);

  const DeviceReaction rebooted = player.take("reboot\n", behaviour);
  EXPECT_EQ(textOf(rebooted), "bye\n");
  EXPECT_EQ(rebooted.steps.back().ending, DeviceEnding::kPowerOff);
  EXPECT_EQ(rebooted.steps.back().away, 7ms);
}

TEST_F(ConsolePlayerTest, AnAnswerIsSplitWhereTheBehaviourSays) {
  behaviour.splitsAfter = {1, 3, 100};
  behaviour.splitsPromptAfter = 1;
  EXPECT_THAT(partsOf(player.take("version\n", behaviour)),
              ElementsAre("1", ".0", "\n=", "> ", ""));
  behaviour.trickles = true;
  EXPECT_THAT(partsOf(player.take("version\n", behaviour)),
              ElementsAre("1", ".", "0", "\n", "=", ">", " "));
}

TEST_F(ConsolePlayerTest, OnlyTheFirstPartIsDelayed) {
  behaviour.delay = 50ms;
  behaviour.pause = 4ms;
  behaviour.splitsAfter = {0, 2};
  const DeviceReaction reaction = player.take("version\n", behaviour);
  ASSERT_EQ(reaction.steps.size(), 3U);
  EXPECT_EQ(reaction.steps[0].pause, 50ms);
  EXPECT_EQ(reaction.steps[1].pause, 4ms);
  EXPECT_EQ(reaction.steps[2].pause, 4ms);
}

TEST_F(ConsolePlayerTest, AConsoleThatTranslatesLineEndsSpeaksCRLF) {
  behaviour = {.bootText = "booted\n",
               .prompt = "\n# ",
               .echoes = true,
               .translatesLineEnds = true,
               .responses = {{"version", "1.0\n"}}};
  EXPECT_EQ(start(), "booted\r\n\r\n# ");
  EXPECT_EQ(send("version\n"), "version\r\n1.0\r\n\r\n# ");
  EXPECT_EQ(send("version\r"), "version\r\n1.0\r\n\r\n# ");
}

TEST_F(ConsolePlayerTest, TheBootTextIsFollowedByThePrompt) {
  behaviour.bootText = "loading\n";
  EXPECT_EQ(start(), "loading\n=> ");
  EXPECT_EQ(send("ver"), "");
  EXPECT_EQ(start(), "loading\n=> ");
  EXPECT_EQ(send("version\n"), "1.0\n=> ");
}

TEST_F(ConsolePlayerTest, ALoginLetsInWithTheRightPasswordOnly) {
  behaviour.bootText = "loading\n";
  behaviour.echoes = true;
  behaviour.login = DeviceLogin{.user = "root", .password = "secret", .welcome = "Hello\n"};
  EXPECT_EQ(start(), "loading\nlogin: ");
  EXPECT_EQ(send("\n"), "\nlogin: ");
  EXPECT_EQ(send("root\n"), "root\nPassword: ");
  EXPECT_EQ(send("wrong\n"), "\n\nLogin incorrect\nlogin: ");
  EXPECT_EQ(send("guest\nsecret\n"), "guest\nPassword: \n\nLogin incorrect\nlogin: ");
  EXPECT_EQ(send("root\nsecret\n"), "root\nPassword: \nHello\n=> ");
  EXPECT_EQ(send("version\n"), "version\n1.0\n=> ");
}

TEST_F(ConsolePlayerTest, ASessionEndsWithItsCommandOrARestart) {
  behaviour.login = DeviceLogin{};
  EXPECT_EQ(start(), "login: ");
  EXPECT_EQ(send("guest\n"), "\nLogin incorrect\nlogin: ");
  EXPECT_EQ(send("root\n"), "=> ");
  EXPECT_EQ(send("exit\n"), "login: ");
  EXPECT_EQ(send("root\n"), "=> ");
  player.endConnection();
  EXPECT_EQ(send("version\n"), "1.0\n=> ");
  EXPECT_EQ(start(), "login: ");
}

TEST_F(ConsolePlayerTest, ASilentDeviceNotesCommandsOnly) {
  behaviour.isSilent = true;
  const DeviceReaction reaction = player.take("version\n", behaviour);
  EXPECT_THAT(reaction.commands, ElementsAre("version"));
  EXPECT_THAT(reaction.steps, IsEmpty());
}

TEST_F(ConsolePlayerTest, ADeviceHangsUpInTheMiddleOfAnAnswer) {
  behaviour.hangsUpAfter = 2;
  const DeviceReaction reaction = player.take("version\n", behaviour);
  EXPECT_EQ(textOf(reaction), "1.");
  EXPECT_EQ(reaction.steps.back().ending, DeviceEnding::kHangUp);
}

}  // namespace
