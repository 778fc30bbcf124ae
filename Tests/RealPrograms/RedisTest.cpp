// The text protocol of redis: no echo, no prompt, answers with their length.
#include <ZephalConsole/Console.h>
#include <ZephalIO/ZephalIO.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "RealPrograms/Support/Listener.h"
#include "RealPrograms/Support/RealProgram.h"
#include "Support/LogFile.h"

namespace {

using namespace support;
using namespace zephal;
using namespace std::chrono_literals;
using testing::ElementsAre;

constexpr size_t kSize = size_t{1} << 20;
constexpr const char* kAskForMuch = R"~(EVAL "return string.rep('0123456789abcdef', 65536)" 0)~";

std::string much() {
  std::string text;
  while (text.size() < kSize) text += "0123456789abcdef";
  return text;
}

class Redis : public testing::Test {
 protected:
  Redis()
      : _redis({{"redis-server", "--bind", _address, "--port", "4001", "--unixsocket", _path,
                 "--unixsocketperm", "777", "--dir", _folder.path(), "--save", "", "--appendonly",
                 "no"}}) {
    _redis.waitUntilItListens(tcp());
    _redis.waitUntilItListens(local());
  }

  std::string tcp() const { return "tcp://" + _address + ":4001"; }
  std::string local() const { return "unix://" + _path; }
  std::string pathOf(const char* name) const { return _folder.pathOf(name); }

  const ConsoleOptions options{.timeout = 60s, .lineEnd = "\r\n"};

 private:
  TemporaryFolder _folder;
  const std::string _path = _folder.pathOf("socket");
  const std::string _address = loopbackAddress();
  RealProgram _redis;
};

TEST_F(Redis, AnswersAreExpectedByTextAndExpression) {
  Console first(tcp(), options);
  Console second(local(), options);
  first.send("SET volts 3.25");
  first.expect("+OK\r\n");
  second.send("GET volts");
  EXPECT_EQ(second.expect(regex(R"(\$4\r\n([\d.]+)\r\n)")).number(), 3.25);
  second.send("INFO server");
  EXPECT_GE(second.expect(regex(R"(redis_version:(\d+)\.)")).number(), 6);
  second.discard();
  first.send("NONSENSE");
  const Hit refusal = first.expect({"+OK\r\n", regex(R"(-ERR ([^\r]*)\r\n)")});
  EXPECT_EQ(refusal.index, 1U);
}

TEST_F(Redis, ALongAnswerArrivesWhole) {
  for (const std::string& url : {tcp(), local()}) {
    Console dut(url, options);
    dut.send(kAskForMuch);
    EXPECT_EQ(dut.expect(regex(R"(\$(\d+)\r\n)")).number(), kSize);
    EXPECT_TRUE(dut.expect("\r\n").before == much()) << url;
  }
}

TEST_F(Redis, AStackLogsTheConversationAndTheBytes) {
  const std::string log = pathOf("log");
  const std::string rawLog = pathOf("raw");
  ZPKErrorPtr error;
  const auto stack = ZPKCommStack::init();
  ASSERT_TRUE(stack->setDelimiter("\r\n") && stack->setLineTerminator("\r\n"));
  ASSERT_TRUE(stack->setLogFilePath(log, rawLog, &error));
  ASSERT_TRUE(stack->createStackWithURL(tcp(), &error));
  ASSERT_TRUE(stack->openWithTimeout(std::nullopt, &error));
  EXPECT_EQ(stack->sendCommandString("PING", 60, &error), "+PONG\r\n");
  EXPECT_EQ(stack->sendCommandString("INCR count", 60, &error), ":1\r\n");
  EXPECT_EQ(stack->sendCommandString(kAskForMuch, 60, &error), "$1048576\r\n");
  EXPECT_TRUE(stack->readStringWithTimeout(60, std::nullopt, &error) == much() + "\r\n");
  EXPECT_TRUE(stack->close(&error));
  EXPECT_EQ(joinedTextOfLog(log, "post--read"), "+PONG:1$1048576" + much());
  EXPECT_EQ(joinedTextOfLog(rawLog, "pre---read"), "+PONG:1$1048576" + much());
  EXPECT_EQ(joinedTextOfLog(rawLog, "pre--write"), "PINGINCR count" + std::string(kAskForMuch));
}

}  // namespace
