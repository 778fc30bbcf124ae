// Several threads on one comm stack: who waits for whom, and that nothing interleaves.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <mutex>
#include <thread>
#include <tuple>

#include "Data Stack/ZPKCommStack.h"
#include "Support/EventWait.h"
#include "Support/RunTogether.h"
#include "Support/ScriptedStack.h"
#include "Support/TransportPeer.h"
#include "ZephalLogging.h"

using namespace support;

namespace {

using testing::ElementsAre;

// Something that happens once. A waiter gives up long after any working test would be done.
class Event {
 public:
  void happen() {
    {
      const std::lock_guard guard(_mutex);
      _happened = true;
    }
    _changed.notify_all();
  }
  bool hasHappened() const {
    const std::lock_guard guard(_mutex);
    return _happened;
  }
  bool wait() const {
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, kPatience, [this] { return _happened; });
  }

 private:
  mutable std::mutex _mutex;
  mutable std::condition_variable _changed;
  bool _happened = false;
};

// Whether a thread sleeps in the system, as it does while it waits for a lock.
bool isAsleep(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string line;
  std::getline(file, line);
  const size_t nameEnd = line.rfind(") ");
  return nameEnd != std::string::npos && line[nameEnd + 2] == 'S';
}

// A stack whose first read below blocks until it is released. `order` says what happened in turn.
class HeldRead {
 public:
  HeldRead() {
    made->setDelimiter("> ");
    made.base->setOnRead([this](double) {
      if (began.hasHappened()) return;
      record("read begins");
      began.happen();
      _released.wait();
      record("read ends");
    });
  }

  // Runs `call` during the held read. It must not return before that read has ended.
  void expectToWait(const std::function<void()>& call) {
    std::atomic<pid_t> caller{0};
    std::atomic<bool> isBack{false};
    std::thread thread([&] {
      caller = ::gettid();
      call();
      record("call returns");
      isBack = true;
    });
    EXPECT_TRUE(waitFor([&] { return isBack || (caller != 0 && isAsleep(caller)); }));
    EXPECT_FALSE(isBack);
    release();
    thread.join();
    EXPECT_THAT(order(), ElementsAre("read begins", "read ends", "call returns"));
  }

  void release() { _released.happen(); }

  void record(const char* what) {
    const std::lock_guard guard(_mutex);
    _order.emplace_back(what);
  }
  std::vector<std::string> order() const {
    const std::lock_guard guard(_mutex);
    return _order;
  }

  ScriptedStack made;
  Event began;

 private:
  Event _released;
  mutable std::mutex _mutex;
  std::vector<std::string> _order;
};

struct Call {
  const char* name;
  void (*make)(ZPKCommStack& stack);
};

void PrintTo(const Call& call, std::ostream* out) { *out << call.name; }

class ZPKCommStackWaitTest : public testing::TestWithParam<std::tuple<Call, Call>> {
 protected:
  LogCapture log;
};

TEST_P(ZPKCommStackWaitTest, ACallWaitsForTheReadOfAnotherThread) {
  const auto& [holder, other] = GetParam();
  HeldRead held;
  held.made.base->addRead("one> two> ");
  std::thread reader([&, make = holder.make] { make(*held.made.stack); });
  ASSERT_TRUE(held.began.wait());
  held.expectToWait([&, make = other.make] { make(*held.made.stack); });
  reader.join();
}

const std::vector<Call> kHolders = {
    {"ReadWithALimit", [](ZPKCommStack& stack) { stack.readDataWithTimeout(600, nullptr); }},
    {"ReadWithoutALimit",
     [](ZPKCommStack& stack) { stack.readStringWithTimeout(std::nullopt, ">"); }},
    {"Command", [](ZPKCommStack& stack) { stack.sendCommandString("ask", 600); }}};

const std::vector<Call> kCalls = {
    {"IsOpen", [](ZPKCommStack& stack) { stack.isOpen(); }},
    {"Open", [](ZPKCommStack& stack) { stack.openWithTimeout(1); }},
    {"Close", [](ZPKCommStack& stack) { stack.close(); }},
    {"CreateWithBaseChannel",
     [](ZPKCommStack& stack) { stack.createStackWithBaseChannel(nullptr); }},
    {"CreateWithURL", [](ZPKCommStack& stack) { stack.createStackWithURL("nowhere"); }},
    {"EnableECID", [](ZPKCommStack& stack) { stack.enableECIDSwapDetectionWithECID(1); }},
    {"SetTimeoutIsException", [](ZPKCommStack& stack) { stack.setTimeoutIsException(1, nullptr); }},
    {"SetDelimiter", [](ZPKCommStack& stack) { stack.setDelimiter("#"); }},
    {"SetLineTerminator", [](ZPKCommStack& stack) { stack.setLineTerminator("#"); }},
    {"WriteData", [](ZPKCommStack& stack) { stack.writeData(dataOf("x")); }},
    {"WriteString", [](ZPKCommStack& stack) { stack.writeString("x"); }},
    {"ReadData", [](ZPKCommStack& stack) { stack.readDataWithTimeout(0, nullptr); }},
    {"ReadString", [](ZPKCommStack& stack) { stack.readStringWithTimeout(0, std::nullopt); }},
    {"SendCommandData", [](ZPKCommStack& stack) { stack.sendCommandData(dataOf("x"), 0); }},
    {"SendCommandString", [](ZPKCommStack& stack) { stack.sendCommandString("x", 0); }}};

INSTANTIATE_TEST_SUITE_P(, ZPKCommStackWaitTest,
                         testing::Combine(testing::ValuesIn(kHolders), testing::ValuesIn(kCalls)),
                         [](const auto& tested) {
                           return std::string(std::get<1>(tested.param).name) + "Beside" +
                                  std::get<0>(tested.param).name;
                         });

class ZPKCommStackThreadsTest : public testing::Test {
 protected:
  LogCapture log;
};

// A channel whose write waits, as if its peer did not read.
class HeldWrite final : public ZPKDataChannel {
 public:
  bool openWithTimeout(double, ZPKErrorPtr*) override { return true; }
  bool close(ZPKErrorPtr*) override { return true; }
  bool reset(ZPKErrorPtr*) override { return true; }
  bool isOpened() const override { return true; }
  ZPKDataPtr readWithTimeout(double, ZPKErrorPtr*) override { return ZPKData::data(); }
  bool write(const ZPKDataPtr&, ZPKErrorPtr*) override {
    began.happen();
    released.wait();
    return true;
  }

  Event began;
  Event released;
};

TEST_F(ZPKCommStackThreadsTest, CloseWaitsForAWriteThatIsNotRead) {
  const auto channel = std::make_shared<HeldWrite>();
  const auto stack = ZPKCommStack::init();
  ASSERT_TRUE(stack->createStackWithBaseChannel(channel));
  std::thread writer([&] { EXPECT_TRUE(stack->writeString("x")); });
  ASSERT_TRUE(channel->began.wait());
  std::atomic<pid_t> closer{0};
  std::atomic<bool> isClosed{false};
  std::thread closing([&] {
    closer = ::gettid();
    stack->close();
    isClosed = true;
  });
  EXPECT_TRUE(waitFor([&] { return isClosed || (closer != 0 && isAsleep(closer)); }));
  EXPECT_FALSE(isClosed);
  channel->released.happen();
  writer.join();
  closing.join();
}

TEST_F(ZPKCommStackThreadsTest, ClosingTheBaseChannelEndsAnUnreadWrite) {
  for (const bool readsAhead : {false, true}) {
    TransportPeer peer(TransportPeer::Kind::kUnix);
    const auto base = peer.makeChannel();
    const auto stack = ZPKCommStack::init();
    stack->setActiveChannelOnOff(readsAhead);
    ASSERT_TRUE(stack->createStackWithBaseChannel(base));
    ASSERT_TRUE(peer.open(stack->commChannel()));
    std::atomic<pid_t> writer{0};
    std::thread writing([&] {
      writer = ::gettid();
      EXPECT_FALSE(stack->writeString(std::string(8 << 20, 'x')));
    });
    EXPECT_TRUE(waitFor([&] { return writer != 0 && isAsleep(writer); }));
    EXPECT_TRUE(base->close());
    writing.join();
    EXPECT_EQ(stack->isOpen(), 0);
  }
}

TEST_F(ZPKCommStackThreadsTest, PlainAccessorsDoNotWaitForARead) {
  HeldRead held;
  ZPKCommStack& stack = *held.made.stack;
  held.made.base->addRead("one> ");
  std::thread reader([&] { stack.readDataWithTimeout(600, nullptr); });
  ASSERT_TRUE(held.began.wait());
  EXPECT_NE(stack.commChannel(), nullptr);
  EXPECT_NE(stack.aggregator(), nullptr);
  EXPECT_NE(stack.appender(), nullptr);
  EXPECT_NE(stack.ecidChecker(), nullptr);
  stack.setTimeoutIsException(false);
  EXPECT_FALSE(stack.timeoutIsException());
  stack.setLogFilePath("/a");
  EXPECT_EQ(stack.logFilePath(), "/a");
  EXPECT_EQ(stack.ecidSwapInformation(), std::nullopt);
  EXPECT_THAT(held.order(), ElementsAre("read begins"));
  held.release();
  reader.join();
}

TEST_F(ZPKCommStackThreadsTest, ARunningReadKeepsAChainThatIsRemoved) {
  HeldRead held;
  held.made.base->addRead("one> ");
  const std::weak_ptr<ScriptedChannel> base = held.made.base;
  std::optional<std::string> response;
  std::thread reader([&] { response = held.made->readStringWithTimeout(600, std::nullopt); });
  ASSERT_TRUE(held.began.wait());
  held.made.base = nullptr;
  held.made->setCommChannel(nullptr);
  EXPECT_FALSE(base.expired());
  held.release();
  reader.join();
  EXPECT_EQ(response, "one> ");
  EXPECT_TRUE(base.expired());
}

TEST_F(ZPKCommStackThreadsTest, ANewDelimiterCannotSlipIntoARunningRead) {
  HeldRead held;
  held.made.base->addRead("a#b");
  held.made.base->addRead("c> d#e");
  std::optional<std::string> response;
  std::thread reader([&] { response = held.made->readStringWithTimeout(600, std::nullopt); });
  ASSERT_TRUE(held.began.wait());
  held.expectToWait([&] { held.made->setDelimiter("#"); });
  reader.join();
  EXPECT_EQ(response, "a#bc> ");
  EXPECT_EQ(held.made->readStringWithTimeout(0, std::nullopt), "d#");
}

TEST_F(ZPKCommStackThreadsTest, ARunningReadDoesNotOverwriteANewDelimiter) {
  HeldRead held;
  held.made.base->addRead("a:b#");
  std::optional<std::string> response;
  std::thread reader([&] { response = held.made->readStringWithTimeout(600, ":"); });
  ASSERT_TRUE(held.began.wait());
  held.expectToWait([&] { held.made->setDelimiter("#"); });
  reader.join();
  EXPECT_EQ(response, "a:");
  EXPECT_EQ(bytesOf(held.made->aggregator()->data2Find()), "#");
}

TEST_F(ZPKCommStackThreadsTest, ASecondCommandIsSentAfterTheFirstOnesResponse) {
  HeldRead held;
  held.made.base->addRead("one> ");
  held.made.base->addRead("two> ");
  std::optional<std::string> first;
  std::optional<std::string> second;
  std::thread reader([&] { first = held.made->sendCommandString("1", 600); });
  ASSERT_TRUE(held.began.wait());
  held.expectToWait([&] { second = held.made->sendCommandString("2", 600); });
  reader.join();
  EXPECT_EQ(first, "one> ");
  EXPECT_EQ(second, "two> ");
  EXPECT_THAT(held.made.base->calls(), ElementsAre("write", "read", "write", "read"));
}

TEST_F(ZPKCommStackThreadsTest, ASwapReportedDuringAReadFailsThatRead) {
  HeldRead held;
  held.made.base->addRead("one> ");
  ZPKErrorPtr error;
  ZPKDataPtr data;
  std::thread reader([&] { data = held.made->readDataWithTimeout(600, nullptr, &error); });
  ASSERT_TRUE(held.began.wait());
  held.made->setEcidSwapInformation("another device");
  held.release();
  reader.join();
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(descriptionOf(error), "another device");
}

// A failure is logged where it is detected. While a line is written, another thread can use the
// stack: lines are not written under its lock.
TEST_F(ZPKCommStackThreadsTest, AResponseIsDecodedAndSearchedOutsideTheLock) {
  const ScriptedStack made;
  for (const char* response : {"\xFF> ", "\xFF> ", "no number> "}) made.base->addRead(response);
  std::deque<Event> visits;
  std::vector<std::thread> visitors;
  std::vector<std::string> lines;
  ZPKLoggingSetSink([&](int, std::string_view line) {
    lines.emplace_back(line.substr(0, line.find(' ')));
    Event& visit = visits.emplace_back();
    visitors.emplace_back([&made, &visit] {
      made->isOpen();
      visit.happen();
    });
    EXPECT_TRUE(visit.wait()) << line;
  });
  made->readStringWithTimeout(600, std::nullopt);
  made->sendCommandString("ask", 600);
  made->sendCommandStringWithEchoRemoval("ask", ZPKRegex::initWithPattern("\\d"), 600);
  for (std::thread& visitor : visitors) visitor.join();
  EXPECT_THAT(lines, ElementsAre("Response", "Response", "Unable"));
}

TEST_F(ZPKCommStackThreadsTest, TheThreadThatHoldsTheStackMayCallItAgain) {
  const ScriptedStack made;
  made.base->addRead("one> ");
  made.base->setOnRead([&](double) {
    EXPECT_EQ(made->isOpen(), 1);
    EXPECT_TRUE(made->setLineTerminator("\r"));
    EXPECT_TRUE(made->writeString("from within"));
  });
  EXPECT_EQ(made->sendCommandString("ask", 1), "one> ");
  EXPECT_THAT(made.base->writes(), ElementsAre("ask\n", "from within\r"));
}

// Answers each line with itself and a prompt, a few bytes per read. It has no lock, so if the stack
// failed to keep threads apart, mixed answers and data races would show it.
class EchoingChannel final : public ZPKDataChannel {
 public:
  bool openWithTimeout(double, ZPKErrorPtr*) override { return _opened = true; }
  bool close(ZPKErrorPtr*) override {
    _answer.clear();
    return std::exchange(_opened, false);
  }
  bool reset(ZPKErrorPtr*) override { return true; }
  bool isOpened() const override { return _opened; }
  ZPKDataPtr readWithTimeout(double, ZPKErrorPtr*) override {
    std::this_thread::yield();
    const std::string chunk = _answer.substr(0, 5);
    _answer.erase(0, chunk.size());
    return dataOf(chunk);
  }
  bool write(const ZPKDataPtr& data, ZPKErrorPtr*) override {
    _answer += std::string(data->view()) + "> ";
    std::this_thread::yield();
    return true;
  }

 private:
  bool _opened = true;
  std::string _answer;
};

constexpr int kTalkers = 4;
constexpr int kRounds = 200;

TEST_F(ZPKCommStackThreadsTest, CommandsOfSeveralThreadsNeverMix) {
  const auto stack = ZPKCommStack::init();
  ASSERT_TRUE(stack->createStackWithBaseChannel(std::make_shared<EchoingChannel>()));
  std::vector<std::function<void()>> talkers;
  for (int talker = 0; talker < kTalkers; ++talker) {
    talkers.emplace_back([&stack, talker] {
      for (int round = 0; round < kRounds; ++round) {
        const std::string command = std::to_string(talker) + "-" + std::to_string(round);
        EXPECT_EQ(stack->sendCommandString(command, 600), command + "\n> ");
      }
    });
  }
  runTogether(talkers);
}

TEST_F(ZPKCommStackThreadsTest, AChainMayBeReplacedDuringCommands) {
  const auto stack = ZPKCommStack::init();
  stack->setCommChannel(std::make_shared<EchoingChannel>());
  std::atomic<bool> isOver{false};
  const auto talk = [&] {
    for (int round = 0; round < kRounds; ++round) {
      ASSERT_EQ(stack->sendCommandString("ab", 600), "ab> ");
    }
  };
  const auto replace = [&] {
    while (!isOver) stack->setCommChannel(std::make_shared<EchoingChannel>());
  };
  std::thread replacer(replace);
  talk();
  isOver = true;
  replacer.join();
}

TEST_F(ZPKCommStackThreadsTest, SettingsAndReopeningDuringCommandsAreSafe) {
  const auto stack = ZPKCommStack::init();
  ASSERT_TRUE(stack->createStackWithBaseChannel(std::make_shared<EchoingChannel>()));
  std::atomic<int> answers{0};
  const auto talk = [&](const std::string& name) {
    for (int round = 0; round < kRounds; ++round) {
      const std::string command = name + std::to_string(round);
      ZPKErrorPtr error;
      const auto answer = stack->sendCommandStringWithEchoRemoval(command, 600, &error);
      if (answer.has_value()) {
        EXPECT_EQ(answer, "> ");
        ++answers;
      } else {
        EXPECT_EQ(codeOf(error), 304);
      }
    }
  };
  const auto configure = [&] {
    for (int round = 0; round < kRounds; ++round) {
      stack->setDelimiter("> ");
      stack->setLineTerminator("\n");
      stack->setTimeoutIsException(1, nullptr);
      stack->setEcidSwapInformation(std::nullopt);
      stack->setActiveChannelOnOff(false);
      stack->setLogFilePath(std::nullopt);
      EXPECT_EQ(bytesOf(stack->appender()->dataToAppend()), "\n");
      EXPECT_NE(stack->commChannel(), nullptr);
    }
  };
  const auto reopen = [&] {
    for (int round = 0; round < kRounds; ++round) {
      EXPECT_TRUE(stack->close());
      EXPECT_EQ(stack->isOpen(), 0);
      if (round % 2 == 0) stack->createStackWithBaseChannel(std::make_shared<EchoingChannel>());
      if (stack->isOpen() == 0) {
        EXPECT_TRUE(stack->openWithTimeout(1));
      }
    }
  };
  runTogether({[&] { talk("a"); }, [&] { talk("b"); }, configure, reopen});
  talk("afterwards");
  EXPECT_GE(answers, kRounds);
}

}  // namespace
