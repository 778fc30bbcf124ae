// Consoles that talk to real shells.
#include <gtest/gtest.h>

#include "Support/LogFile.h"
#include "Support/TemporaryFolder.h"
#include "ZephalConsole/Console.h"
#include "ZephalConsole/Support/ShellDevice.h"

namespace {

using namespace zephal;
using namespace std::chrono_literals;
using support::ShellDevice;

struct Shell {
  const char* name;
  ShellDevice::Setup setup;
};

std::ostream& operator<<(std::ostream& stream, const Shell& shell) { return stream << shell.name; }

class AShell : public testing::TestWithParam<Shell> {
 protected:
  AShell() : _device(GetParam().setup), dut(_device.url(), {.prompt = "board$ ", .timeout = 20s}) {
    dut.expect("board$ ");
  }

 private:
  ShellDevice _device;

 protected:
  Console dut;
};

TEST_P(AShell, AnswersWithoutEchoAndPrompt) {
  EXPECT_EQ(dut.ask("echo hello"), "hello\n");
  EXPECT_EQ(dut.ask("true"), "");
  EXPECT_EQ(dut.ask("printf 'a\\nb'"), "a\nb");
}

TEST_P(AShell, AnswersACommandLongerThanTheTerminalIsWide) {
  for (size_t length = 20; length < 130; length += 3) {
    const std::string word(length, 'x');
    ASSERT_EQ(dut.ask("echo " + word + " | cat"), word + "\n") << length;
    ASSERT_EQ(dut.ask("echo two words " + word), "two words " + word + "\n") << length;
  }
}

TEST_P(AShell, AnswersACommandThatContainsThePrompt) {
  EXPECT_EQ(dut.ask("echo 'x board$  y' | tr -d b | wc -l"), "1\n");
}

TEST_P(AShell, RunsCommandsAndTellsTheirStatus) {
  const RunResult good = dut.run("echo fine");
  EXPECT_EQ(good.output, "fine\n");
  EXPECT_EQ(good.status, 0);
  const RunResult bad = dut.run("echo broken; (exit 3)");
  EXPECT_EQ(bad.output, "broken\n");
  EXPECT_EQ(bad.status, 3);
}

// What goes to the logs is masked at the same place.
TEST_P(AShell, ShowsNothingOfASecretHoweverItWrapsTheEcho) {
  for (size_t length = 20; length < 130; length += 7) {
    dut.sendSecret("true " + std::string(length, 'S'));
    const std::string shown = dut.expect("board$ ").before;
    ASSERT_EQ(shown.find('S'), std::string::npos) << length << ": " << shown;
    ASSERT_NE(shown.find("***"), std::string::npos) << length << ": " << shown;
  }
  EXPECT_EQ(dut.ask("echo alive"), "alive\n");
}

TEST_P(AShell, IsInterrupted) {
  dut.send("sh -c 'echo go; exec sleep 1000'");
  dut.expect("go\r\n");
  dut.interrupt();
  dut.expect("board$ ");
  EXPECT_EQ(dut.ask("echo alive"), "alive\n");
}

TEST_P(AShell, NeverAnswersWithAnEarlierCommandsLateAnswer) {
  EXPECT_THROW(dut.ask("sleep 1; echo late", 50ms), Timeout);
  EXPECT_EQ(dut.ask("echo next"), "next\n");
}

TEST_P(AShell, AnswersWithManyLines) {
  std::string expected;
  for (int i = 1; i <= 2000; ++i) expected += std::to_string(i) + "\n";
  EXPECT_EQ(dut.ask("i=0; while [ $i -lt 2000 ]; do i=$((i+1)); echo $i; done"), expected);
}

const Shell kShells[] = {
    {"bash", {{"bash", "--norc", "-i"}, 80, "xterm", {"PS1=board$ "}}},
    {"bashNarrow", {{"bash", "--norc", "-i"}, 40, "xterm", {"PS1=board$ "}}},
    {"bashOnADumbTerminal", {{"bash", "--norc", "-i"}, 80, "dumb", {"PS1=board$ "}}},
    {"bashOnANarrowDumbTerminal", {{"bash", "--norc", "-i"}, 40, "dumb", {"PS1=board$ "}}},
    {"bashWithoutLineEditor",
     {{"bash", "--norc", "--noediting", "-i"}, 40, "xterm", {"PS1=board$ "}}},
    {"dash", {{"dash", "-i"}, 40, "xterm", {"PS1=board$ "}}},
    {"busybox", {{"busybox", "sh", "-i"}, 80, "xterm", {"PS1=board$ "}}},
    {"busyboxNarrow", {{"busybox", "sh", "-i"}, 40, "xterm", {"PS1=board$ "}}},
};

INSTANTIATE_TEST_SUITE_P(Shells, AShell, testing::ValuesIn(kShells),
                         [](const auto& shell) { return shell.param.name; });

}  // namespace
