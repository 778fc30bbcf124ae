// Consoles in states that nobody wishes for: cancelled, closed, flooded or forked in the middle.
#include <ZephalSimulator/SimulatedDevice.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>

#include "Support/ProcessThreads.h"
#include "ZephalConsole/Console.h"
#include "ZephalConsole/Support/SilentListener.h"
#include "ZephalConsole/Support/TimeoutOf.h"

namespace {

using namespace zephal;
using namespace std::chrono_literals;
using Device = SimulatedDevice;

// Only an operation that fails waits this long.
constexpr auto kPatience = 20s;

ConsoleOptions patient(ConsoleOptions options = {}) {
  options.timeout = kPatience;
  if (!options.prompt.has_value()) options.prompt = "=> ";
  return options;
}

bool isBusy(Console& dut) {
  try {
    dut.expect("never", 0s);
    return false;
  } catch (const Timeout& timeout) {
    return timeout.waitedFor() == "another operation to end";
  } catch (const Error&) {
    return false;
  }
}

// An operation on a thread of its own.
class OtherThread {
 public:
  explicit OtherThread(std::function<void()> operation)
      : _thread([this, operation = std::move(operation)] {
          _number = ::gettid();
          operation();
        }) {}
  OtherThread(const OtherThread&) = delete;
  OtherThread& operator=(const OtherThread&) = delete;
  ~OtherThread() { _thread.join(); }

  /// Until it has the console's turn and sleeps.
  void waitUntilItWaits(Console& dut) const {
    while (_number == 0 || !isBusy(dut) || !support::isThreadAsleep(_number)) {
      std::this_thread::yield();
    }
  }

 private:
  std::atomic<pid_t> _number{0};
  std::thread _thread;
};

// ---- every operation, ended from outside ----

struct Operation {
  const char* name;
  std::function<void(Console&)> run;
};

std::ostream& operator<<(std::ostream& stream, const Operation& operation) {
  return stream << operation.name;
}

const Operation kOperations[] = {
    {"expect", [](Console& dut) { dut.expect("never"); }},
    {"expectAnExpression", [](Console& dut) { dut.expect(regex("ne+ver$")); }},
    {"ask", [](Console& dut) { dut.ask("wait"); }},
    {"askAndPick", [](Console& dut) { dut.ask("wait", regex("x")); }},
    {"run", [](Console& dut) { dut.run("wait"); }},
    {"login", [](Console& dut) { dut.login("root", "secret"); }},
    {"write", [](Console& dut) { dut.write(std::string(size_t{64} << 20, 'x')); }},
    {"record", [](Console& dut) { dut.record(1h); }},
    {"reboot", [](Console& dut) { dut.reboot("wait"); }},
};

// A device that never answers, and in the case of a write never reads.
class AnOperation : public testing::TestWithParam<Operation> {
 protected:
  AnOperation() : dut(url(), {.prompt = "=> ", .timeout = 1h}) {}

  // Runs the operation on another thread, until `end` has made it throw.
  template <class Expected>
  void endWith(const std::function<void()>& end) {
    std::atomic<bool> hasEnded = false;
    std::thread other([&] {
      EXPECT_THROW(GetParam().run(dut), Expected);
      hasEnded = true;
    });
    while (!hasEnded) {
      end();
      std::this_thread::sleep_for(1ms);
    }
    other.join();
  }

 private:
  bool isWrite() const { return GetParam().name == std::string("write"); }
  std::string url() const { return isWrite() ? _deaf.url() : _device.url(); }

  Device _device{DeviceKind::kUnix, {.isSilent = true}};
  support::SilentListener _deaf{1};

 protected:
  Console dut;
};

TEST_P(AnOperation, IsCancelled) {
  endWith<Cancelled>([this] { dut.cancel(); });
  EXPECT_TRUE(dut.isOpen());
}

TEST_P(AnOperation, IsDisconnectedByClose) {
  endWith<Disconnected>([this] { dut.close(); });
  EXPECT_FALSE(dut.isOpen());
}

// The first call of close() must be enough: no later one wakes what this one has missed.
TEST_P(AnOperation, IsDisconnectedByOneClose) {
  const OtherThread other([this] { EXPECT_THROW(GetParam().run(dut), Disconnected); });
  other.waitUntilItWaits(dut);
  dut.close();
}

TEST_P(AnOperation, TellsThatTheConsoleIsClosed) {
  dut.close();
  EXPECT_THROW(GetParam().run(dut), Disconnected);
  EXPECT_FALSE(dut.isOpen());
}

INSTANTIATE_TEST_SUITE_P(Trouble, AnOperation, testing::ValuesIn(kOperations),
                         [](const auto& operation) { return operation.param.name; });

TEST(Trouble, CancelReachesAWriteWhileTheOtherThreadReads) {
  for (int round = 0; round < 20; ++round) {
    const support::SilentListener deaf(1);
    Console dut(deaf.url(), {.timeout = 1h});
    std::this_thread::sleep_for(25ms);  // until the console's own thread reads
    const OtherThread other(
        [&] { EXPECT_THROW(dut.write(std::string(size_t{1} << 20, 'x')), Cancelled); });
    other.waitUntilItWaits(dut);
    dut.cancel();
  }
}

TEST(Trouble, CloseEndsAReopenThatTriesAgainAndAgain) {
  Device device(DeviceKind::kUnix);
  Console dut(device.url(), {.timeout = 1h});
  device.powerOff();
  {
    const OtherThread other([&] { EXPECT_THROW(dut.reopen(), Disconnected); });
    other.waitUntilItWaits(dut);
    dut.close();
  }
  EXPECT_FALSE(dut.isOpen());
}

TEST(Trouble, CloseIsNotTakenForARebootOfTheDevice) {
  Device device(DeviceKind::kUnix, {.isSilent = true});
  Console dut(device.url(), {.prompt = "=> ", .timeout = 1h});
  std::thread other([&] { EXPECT_THROW(dut.reboot("reset"), Disconnected); });
  device.waitForCommands(1);
  dut.close();
  other.join();
  EXPECT_FALSE(dut.isOpen());
}

// Each second of a flood has room for ten questions; on a crowded machine a few are enough.
TEST(Trouble, AFloodDoesNotKeepTheCallersFunctionFromBeingAsked) {
  Device device(DeviceKind::kUnix, {.floods = true});
  int asked = 0;
  Console dut(device.url(), {.timeout = 10min, .isInterrupted = [&] { return ++asked == 3; }});
  EXPECT_THROW(dut.expect("never"), Cancelled);
}

TEST(Trouble, TheCallersFunctionIsAskedWhileTheLineOpens) {
  const support::SilentListener full(0);
  int asked = 0;
  try {
    Console dut(full.url(), {.timeout = 10min, .isInterrupted = [&] { return ++asked == 3; }});
    FAIL();
  } catch (const Cancelled&) {
    EXPECT_EQ(asked, 3);
  }
}

TEST(Trouble, TheCallersFunctionMayWaitForACancel) {
  Device device(DeviceKind::kUnix, {.isSilent = true});
  std::mutex mutex;
  Console dut(device.url(), {.prompt = "=> ", .timeout = 1h, .isInterrupted = [&] {
                               const std::lock_guard lock(mutex);
                               return false;
                             }});
  std::vector<std::thread> threads;
  std::atomic<int> ended = 0;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      EXPECT_THROW(dut.expect("never"), Cancelled);
      ++ended;
    });
  }
  while (ended < 3) {
    const std::lock_guard lock(mutex);
    std::this_thread::sleep_for(1ms);
    dut.cancel();
  }
  for (std::thread& thread : threads) thread.join();
}

// The caller's function is asked after each wait in which nothing arrived.
TEST(Trouble, WaitingForTheRestOfATextSleeps) {
  Device device(DeviceKind::kUnix);
  size_t waits = 0;
  Console dut(device.url(), patient({.isInterrupted = [&waits] {
                ++waits;
                return false;
              }}));
  device.send("log");
  EXPECT_THROW(dut.expect({"login: ", regex("log[a-z]+n: ")}, 1s), Timeout);
  EXPECT_LT(waits, 100U);
}

// ---- hostile devices ----

TEST(Trouble, ADeviceThatAlwaysAsksForTheUserCannotHoldALoginUp) {
  Device device(DeviceKind::kUnix, {.isSilent = true});
  Console dut(device.url(), {.prompt = "=> "});
  std::atomic<bool> stops = false;
  std::thread other([&] {
    while (!stops) {
      device.send("login: login: login: login: ");
      device.waitUntilAllIsSent(100ms);
    }
  });
  const LoginDialogue texts{.user = "login: ", .password = "Password: ", .refused = "denied"};
  EXPECT_THROW(dut.login("root", "secret", 500ms, texts), Timeout);
  stops = true;
  other.join();
}

TEST(Trouble, ADeviceThatAlwaysPromptsCannotHoldARebootUp) {
  Device device(DeviceKind::kUnix, {.isSilent = true});
  Console dut(device.url(), {.prompt = "=> "});
  std::atomic<bool> stops = false;
  std::thread other([&] {
    while (!stops) {
      device.send("=> => => => => => => => ");
      device.waitUntilAllIsSent(100ms);
    }
  });
  EXPECT_THROW(dut.reboot("reset", 500ms), Timeout);
  stops = true;
  other.join();
}

TEST(Trouble, AnUnreadablePatternIsShownReadably) {
  Device device(DeviceKind::kUnix);
  Console dut(device.url());
  try {
    dut.expect({std::string("\xff\n"), regex("a\tb\\d")}, 10ms);
    FAIL();
  } catch (const Timeout& timeout) {
    EXPECT_EQ(timeout.waitedFor(), R"("\xff\n" or /a\tb\d/)");
  }
}

// ---- answers that are owed ----

// Until now the device was silent, and has received one line. A console that does not wait for the
// prompt sends its next command meanwhile.
void comeUp(Device& device, const char* text) {
  EXPECT_FALSE(device.waitForCommands(2, 100ms));
  device.setBehaviour({.responses = {{"version", "1.0\n"}}});
  device.send(text);
}

TEST(Trouble, TheLatePromptOfARebootEndsNoOtherAnswer) {
  Device device(DeviceKind::kUnix, {.isSilent = true});
  Console dut(device.url(), patient());
  EXPECT_THROW(dut.reboot("reset", 50ms), Timeout);
  std::thread other([&device] { comeUp(device, "booted\n=> "); });
  EXPECT_EQ(dut.ask("version"), "1.0\n");
  other.join();
}

TEST(Trouble, TheLatePromptOfALoginEndsNoOtherAnswer) {
  Device device(DeviceKind::kUnix, {.isSilent = true});
  Console dut(device.url(), patient());
  device.send("Password: ");
  EXPECT_THROW(dut.login("root", "secret", 2s), Timeout);
  std::thread other([&device] { comeUp(device, "welcome\n=> "); });
  EXPECT_EQ(dut.ask("version"), "1.0\n");
  other.join();
}

TEST(Trouble, NoPromptIsOwedAfterReopen) {
  Device device(DeviceKind::kUnix, {.isSilent = true});
  Console dut(device.url(), patient());
  EXPECT_THROW(dut.ask("one", 10ms), Timeout);
  EXPECT_THROW(dut.ask("two", 10ms), Timeout);
  device.setBehaviour({.responses = {{"three", "3\n"}}});
  dut.reopen();
  EXPECT_EQ(dut.ask("three"), "3\n");
}

TEST(Trouble, ALossIsToldOneTime) {
  Device device(DeviceKind::kUnix);
  Console dut(device.url(), patient({.limit = 100}));
  device.send(std::string(500, 'x') + "one");
  device.waitUntilAllIsSent();
  EXPECT_GE(dut.expect("one").lost, 400U);
  device.send("two");
  EXPECT_EQ(dut.expect("two").lost, 0U);
}

// ---- secrets ----

TEST(Trouble, ASecretThatIsEchoedSlowlyStaysSecret) {
  Device device(DeviceKind::kUnix, {.isSilent = true});
  Console dut(device.url(), patient({.quiet = 10ms}));
  dut.sendSecret("hunter2");
  for (const char* part : {"h", "unt", "er", "2", "\r\nwelcome"}) {
    device.send(part);
    device.waitUntilAllIsSent();
    const std::string received = support::timeoutOf(dut).received();
    EXPECT_EQ(received.find('h'), std::string::npos) << received;
  }
  EXPECT_EQ(support::timeoutWith("***\r\nwelcome", dut).received(), "***\r\nwelcome");
}

TEST(Trouble, APromptThatBeginsLikeTheSecretIsFound) {
  Device device(DeviceKind::kUnix, {.isSilent = true});
  Console dut(device.url(), patient({.prompt = ">"}));
  dut.sendSecret(">abc");
  device.send(">");
  EXPECT_EQ(dut.expect(">").text(), ">");
}

TEST(Trouble, AnEmptySecretIsSent) {
  Device device(DeviceKind::kUnix, {.echoes = true, .responses = {{"", "nothing\n"}}});
  Console dut(device.url(), patient());
  dut.sendSecret("");
  EXPECT_EQ(dut.expect("=> ").before, "\nnothing\n");
}

// ---- prompts ----

TEST(Trouble, APromptThatMatchesNothingIsRefused) {
  Device device(DeviceKind::kUnix);
  for (const char* expression : {"x*", "$", "(?=>)", "a?b?"}) {
    EXPECT_THROW(Console(device.url(), {.prompt = regex(expression)}), std::invalid_argument)
        << expression;
  }
}

// ---- forks ----

int statusOfChild(const std::function<bool()>& child) {
  const pid_t process = ::fork();
  if (process == 0) {
    ::alarm(30);
    ::_exit(child() ? 0 : 1);
  }
  int status = -1;
  ::waitpid(process, &status, 0);
  return status;
}

TEST(Trouble, AForkedProcessCannotUseTheConsoleAndLeavesItAlone) {
  Device device(DeviceKind::kUnix, {.responses = {{"version", "1.0\n"}}});
  auto dut = std::make_unique<Console>(device.url(), patient());
  EXPECT_EQ(dut->ask("version"), "1.0\n");
  EXPECT_EQ(statusOfChild([&] {
              try {
                dut->ask("version");
                return false;
              } catch (const Disconnected&) {
              }
              dut->cancel();
              dut->close();
              const bool isOpen = dut->isOpen();
              dut.reset();
              return !isOpen;
            }),
            0);
  EXPECT_EQ(dut->ask("version"), "1.0\n");
}

}  // namespace
