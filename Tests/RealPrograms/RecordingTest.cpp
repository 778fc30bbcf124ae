// What a real shell prints, recorded and played back.
#include <ZephalIO/ZephalIO.h>
#include <ZephalSimulator/SimulatedDevice.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "RealPrograms/Support/Shell.h"
#include "Support/Files.h"
#include "Support/LogFile.h"

namespace {

using namespace support;

class Recording : public testing::Test {
 protected:
  std::string socketPath() const { return folder.pathOf("line"); }
  std::string url() const { return "unix://" + socketPath(); }

  TemporaryFolder folder;
  const std::string log = folder.pathOf("log");
  const std::string rawLog = folder.pathOf("raw");
  ZPKErrorPtr error;
};

// 2000 lines with colours, in pieces as the shell writes them.
constexpr const char* kNoise =
    "for i in {1..2000}; do printf '\\033[3%dmline %d\\033[0m\\n' $((i % 8)) $i; done; echo END";

std::vector<std::string> noisyLines() {
  std::vector<std::string> lines;
  for (int i = 1; i <= 2000; ++i) {
    lines.push_back("\x1b[3" + std::to_string(i % 8) + "mline " + std::to_string(i) + "\x1b[0m");
  }
  lines.emplace_back("END");
  return lines;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line;
  return text;
}

TEST_F(Recording, ARecorderWritesAllThatAShellPrints) {
  writeFile(folder.pathOf("noise"), kNoise);
  RealProgram shell({{"socat", "UNIX-LISTEN:" + socketPath(),
                      "EXEC:bash " + folder.pathOf("noise") + ",pty,setsid,ctty"}});
  shell.waitUntilItListens(url());
  const auto recorder = ZPKCommLoggerStack::init();
  ASSERT_TRUE(recorder->setDelimiter("\n") && recorder->setLogFilePath(log, rawLog, &error));
  ASSERT_TRUE(recorder->createStackWithURL(url(), &error) && recorder->open(&error));
  const std::string expected = joined(noisyLines());
  ASSERT_TRUE(waitFor([&] { return recorder->isOpen() == 0; }));
  EXPECT_TRUE(waitFor([&] { return joinedTextOfLog(log, "post--read") == expected; }));
  EXPECT_TRUE(waitFor([&] { return joinedTextOfLog(rawLog, "pre---read") == expected; }));
}

std::string withoutLineBreaks(std::string text) {
  std::erase_if(text, [](char byte) { return byte == '\r' || byte == '\n'; });
  return text;
}

// What a stack is answered, command by command. Without line breaks, because a log may show one
// between pieces that arrived at the same time.
std::vector<std::string> converse(const std::string& url, ZPKCommStack& stack) {
  std::vector<std::string> answers;
  ZPKErrorPtr error;
  if (!stack.createStackWithURL(url, &error) || !stack.openWithTimeout(std::nullopt, &error)) {
    return answers;
  }
  answers.push_back(stack.readStringWithTimeout(60, std::nullopt, &error).value_or("?"));
  for (const char* command :
       {"echo hello", "seq 300", "printf 'a\\tb\\n\\n'", "(exit 3); echo $?"}) {
    answers.push_back(stack.sendCommandString(command, 60, &error).value_or("?"));
  }
  stack.close(&error);
  std::transform(answers.begin(), answers.end(), answers.begin(), withoutLineBreaks);
  return answers;
}

TEST_F(Recording, APlayedRecordingAnswersAsTheShellDid) {
  const auto shell = serveShell("UNIX-LISTEN:" + socketPath(), "bash --norc --noediting -i");
  shell->waitUntilItListens(url());
  const auto stack = ZPKCommStack::init();
  ASSERT_TRUE(stack->setDelimiter(kPrompt) && stack->setLogFilePath(std::nullopt, rawLog, &error));
  const std::vector<std::string> answers = converse(url(), *stack);
  EXPECT_EQ(std::count(answers.begin(), answers.end(), "?"), 0);
  const zephal::DeviceRecording recording =
      zephal::DeviceRecording::fromRawLog(rawLog, {.lineEnd = "\r\n", .prompt = kPrompt});
  zephal::SimulatedDevice device(zephal::DeviceKind::kUnix, recording);
  const auto again = ZPKCommStack::init();
  ASSERT_TRUE(again->setDelimiter(kPrompt));
  EXPECT_EQ(converse(device.url(), *again), answers);
  EXPECT_TRUE(device.unknownCommands().empty());
}

}  // namespace
