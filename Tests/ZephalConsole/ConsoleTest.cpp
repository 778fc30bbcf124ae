// Consoles that talk to simulated devices.
#include <ZephalSimulator/SimulatedDevice.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "Support/HostNames.h"
#include "Support/LogFile.h"
#include "Support/TemporaryFolder.h"
#include "ZephalConsole/Console.h"
#include "ZephalConsole/Support/SilentListener.h"
#include "ZephalConsole/Support/TimeoutOf.h"

namespace {

using namespace zephal;
using namespace std::chrono_literals;
using support::TemporaryFolder;
using support::textsOfLog;
using Device = SimulatedDevice;
using Lines = std::vector<std::string>;

// Only an operation that fails waits this long.
constexpr auto kPatience = 20s;

ConsoleOptions patient(ConsoleOptions options = {}) {
  options.timeout = kPatience;
  if (!options.prompt.has_value()) options.prompt = "=> ";
  return options;
}

std::string contentsOf(const std::string& path) {
  std::ifstream file(path);
  std::stringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

size_t openDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

class OnEachTransport : public testing::TestWithParam<DeviceKind> {};

TEST_P(OnEachTransport, AsksAndPicks) {
  Device device(GetParam(),
                {.echoes = true,
                 .translatesLineEnds = true,
                 .responses = {{"version", "board 1.0\nrev 2\n"}, {"adc 3", "adc 3: 3.25 V\n"}}});
  Console dut(device.url(), patient());
  EXPECT_EQ(dut.ask("version"), "board 1.0\nrev 2\n");
  EXPECT_EQ(dut.ask("adc 3", regex(R"(([\d.]+) V)")).number(), 3.25);
  EXPECT_EQ(device.commands(), (Lines{"version", "adc 3"}));
}

TEST_P(OnEachTransport, ComesBackAfterTheDeviceRebooted) {
  Device device(GetParam(), {.bootText = "booting\n", .responses = {{"version", "1.0\n"}}});
  Console dut(device.url(), patient());
  dut.expect("=> ");
  device.reboot(100ms);
  EXPECT_THROW(dut.expect("never"), Disconnected);
  dut.reopen();
  EXPECT_EQ(dut.expect("=> ").before, "booting\n");
  EXPECT_EQ(dut.ask("version"), "1.0\n");
}

TEST_P(OnEachTransport, RebootGivesTheBootText) {
  Device device(GetParam(), {.bootText = "booting\n", .isSilent = true});
  Console dut(device.url(), patient());
  dut.expect("=> ");
  std::thread other([&device] {
    device.waitForCommands(1);
    device.reboot(50ms);
  });
  EXPECT_EQ(dut.reboot("reset"), "booting\n");
  other.join();
}

INSTANTIATE_TEST_SUITE_P(Console, OnEachTransport,
                         testing::Values(DeviceKind::kTerminal, DeviceKind::kTCP,
                                         DeviceKind::kUnix));

std::string reasonOf(const std::string& url) {
  try {
    Console dut(url, {.timeout = 5s});
  } catch (const OpenError& error) {
    EXPECT_EQ(error.url(), url);
    return error.what();
  }
  return "opened";
}

TEST(Console, SaysWhyItCannotBeOpened) {
  EXPECT_EQ(reasonOf("nonsense"), "nonsense: the URL's scheme is not uart, tcp, telnet or unix");
  EXPECT_EQ(reasonOf("tcp://[::1"), "tcp://[::1: not a URL");
  EXPECT_EQ(reasonOf("tcp://localhost"), "tcp://localhost: the URL names no TCP port");
  EXPECT_EQ(reasonOf("tcp://:1"), "tcp://:1: the URL names no host");
  EXPECT_EQ(reasonOf("tcp://127.0.0.1:1"),
            "tcp://127.0.0.1:1: cannot connect to 127.0.0.1 port 1: Connection refused");
  EXPECT_EQ(reasonOf("telnet://127.0.0.1:1?baud=fast"),
            "telnet://127.0.0.1:1?baud=fast: the query of a telnet URL may only be baud=RATE");
  EXPECT_EQ(reasonOf("telnet://127.0.0.1:1?baud=9600"),
            "telnet://127.0.0.1:1?baud=9600: cannot connect to 127.0.0.1 port 1: "
            "Connection refused");
  EXPECT_EQ(reasonOf("unix:///none/s"),
            "unix:///none/s: cannot connect to /none/s: No such file or directory");
  EXPECT_EQ(reasonOf("uart:///dev/none"),
            "uart:///dev/none: cannot open /dev/none: No such file or directory");
  EXPECT_NE(reasonOf("tcp://no-such-host.invalid:1").find("cannot look up"), std::string::npos);
  const TemporaryFolder folder;
  const std::string file = folder.pathOf("file");
  std::ofstream(file) << "not a terminal";
  EXPECT_NE(reasonOf("uart://" + file).find("Inappropriate ioctl for device"), std::string::npos);
}

TEST(Console, GivesUpOpeningWhenItsTimeIsUp) {
  const support::SilentListener full(0);
  try {
    Console dut(full.url(), {.timeout = 50ms});
    FAIL();
  } catch (const OpenError& error) {
    EXPECT_EQ(error.domain(), "POSIX");
    EXPECT_EQ(error.code(), ETIMEDOUT);
  }
}

TEST(Console, ConnectsToANameWithAnyKindOfAddress) {
  if (!support::resolvesLocalhost())
    GTEST_SKIP() << "no localhost: neither /etc/hosts nor DNS names it";
  Device device(DeviceKind::kTCP);
  Console dut("tcp://localhost:" + std::to_string(device.port()), patient());
  EXPECT_TRUE(dut.isOpen());
}

TEST(Console, FindsTheFirstOfSeveralPatterns) {
  Device device(DeviceKind::kUnix);
  Console dut(device.url(), patient());
  device.send("boot\nlogin: Password: ");
  const Hit hit = dut.expect({"Password: ", regex("(log)(out)?in: ")});
  EXPECT_EQ(hit.index, 1U);
  EXPECT_EQ(hit.before, "boot\n");
  EXPECT_EQ(hit.text(), "login: ");
  EXPECT_EQ(hit.group(1), "log");
  EXPECT_EQ(hit.groups[2], std::nullopt);
  EXPECT_LE(hit.time, std::chrono::system_clock::now());
  EXPECT_EQ(dut.expect("Password: ").before, "");
}

TEST(Console, DecidesAMatchAtTheEndWhenTheDeviceIsQuiet) {
  Device device(DeviceKind::kUnix);
  Console dut(device.url(), patient());
  device.send("root@board:~# ");
  EXPECT_EQ(dut.expect(regex(R"(\S+# $)")).text(), "root@board:~# ");
}

TEST(Console, TakesWhatIsThereWhenTheTimeIsUp) {
  Device device(DeviceKind::kUnix);
  Console dut(device.url(), {.quiet = 1h});
  device.send("12");
  dut.expect("1", kPatience);
  EXPECT_EQ(dut.expect(regex("[0-9]+"), 100ms).text(), "2");
}

TEST(Console, TimeoutTellsWhatCameAndLeavesItUnread) {
  Device device(DeviceKind::kUnix);
  Console dut(device.url(), patient());
  device.send("booting...");
  dut.expect("boot");
  try {
    dut.expect({"login: ", regex("[$#] $")}, 50ms);
    FAIL();
  } catch (const Timeout& timeout) {
    EXPECT_EQ(timeout.received(), "ing...");
    EXPECT_EQ(timeout.waitedFor(), "\"login: \" or /[$#] $/");
    EXPECT_EQ(timeout.code(), 2);
  }
  EXPECT_EQ(dut.expect("...").before, "ing");
}

TEST(Console, NeverAnswersWithALateAnswer) {
  Device device(DeviceKind::kUnix);
  device.setBehaviour({.respond = [](const std::string& command) -> DeviceAnswer {
                         return "answer to " + command + "\n";
                       },
                       .delay = 500ms});
  Console dut(device.url(), patient());
  EXPECT_THROW(dut.ask("one", 10ms), Timeout);
  EXPECT_THROW(dut.ask("two", 10ms), Timeout);
  EXPECT_EQ(dut.ask("three"), "answer to three\n");
}

TEST(Console, WaitsNoLongerForOwedPromptsAfterDiscard) {
  Device device(DeviceKind::kUnix, {.isSilent = true});
  Console dut(device.url(), patient());
  EXPECT_THROW(dut.ask("one", 10ms), Timeout);
  ASSERT_TRUE(device.waitForCommands(1));  // it would answer, if it came later
  device.setBehaviour({.responses = {{"two", "2\n"}}});
  dut.discard();
  EXPECT_EQ(dut.ask("two"), "2\n");
}

TEST(Console, TellsThatTheAnswerDoesNotContainThePick) {
  Device device(DeviceKind::kUnix, {.responses = {{"adc", "no channel\n"}}});
  Console dut(device.url(), patient());
  try {
    dut.ask("adc", regex(R"(([\d.]+) V)"));
    FAIL();
  } catch (const NoMatch& error) {
    EXPECT_EQ(error.answer(), "no channel\n");
  }
}

TEST(Console, LeavesEscapeSequencesOutUnlessAskedForAndInTheLogs) {
  const TemporaryFolder folder;
  Device device(DeviceKind::kUnix, {.responses = {{"status", "\x1b[32mready\x1b[0m\n"}}});
  {
    Console dut(device.url(), patient({.log = folder.pathOf("log")}));
    EXPECT_EQ(dut.ask("status"), "ready\n");
  }
  EXPECT_NE(contentsOf(folder.pathOf("log")).find("\x1b[32mready\x1b[0m"), std::string::npos);
  Console dut(device.url(), patient({.keepEscapes = true}));
  EXPECT_EQ(dut.ask("status"), "\x1b[32mready\x1b[0m\n");
}

TEST(Console, LogsLinesAndBytesAndGoesOnAfterReopen) {
  const TemporaryFolder folder;
  Device device(DeviceKind::kUnix, {.responses = {{"version", "1.0\n"}}});
  {
    Console dut(device.url(),
                patient({.log = folder.pathOf("log"), .rawLog = folder.pathOf("raw")}));
    dut.ask("version");
    dut.close();
    dut.reopen();
    dut.ask("version");
  }
  const Lines once = {"post-write: version", "post--read: 1.0", "post--read: => "};
  Lines twice = once;
  twice.insert(twice.end(), once.begin(), once.end());
  EXPECT_EQ(textsOfLog(folder.pathOf("log")), twice);
  EXPECT_EQ(textsOfLog(folder.pathOf("raw")).front(), "pre--write: version");
}

TEST(Console, KeepsSecretsOutOfLogsAndExceptions) {
  const TemporaryFolder folder;
  Device device(DeviceKind::kUnix, {.echoes = true, .trickles = true});
  {
    Console dut(device.url(),
                patient({.log = folder.pathOf("log"), .rawLog = folder.pathOf("raw")}));
    dut.sendSecret("hunter2");
    EXPECT_EQ(dut.expect("=> ").before, "***\n");
    dut.sendSecret("hunter2");
    const Timeout timeout = support::timeoutWith("***\n=> ", dut);
    EXPECT_EQ(timeout.received(), "***\n=> ");
    EXPECT_EQ(std::string(timeout.what()).find("hunter2"), std::string::npos);
  }
  EXPECT_EQ(device.commands(), (Lines{"hunter2", "hunter2"}));
  for (const char* name : {"log", "raw"}) {
    const std::string log = contentsOf(folder.pathOf(name));
    EXPECT_EQ(log.find("hunter2"), std::string::npos) << log;
    EXPECT_NE(log.find("***"), std::string::npos) << log;
  }
}

DeviceBehaviour withLogin() {
  return {.login = DeviceLogin{.user = "root", .password = "root"},
          .prompt = "root@board# ",
          .responses = {{"version", "1.0\n"}}};
}

ConsoleOptions atBoard() { return patient({.prompt = "root@board# "}); }

TEST(Console, LogsInAndAgainWhenItIsLoggedIn) {
  Device device(DeviceKind::kUnix, withLogin());
  Console dut(device.url(), atBoard());
  dut.login("root", "root");
  EXPECT_EQ(dut.ask("version"), "1.0\n");
  dut.login("root", "root");
  EXPECT_EQ(dut.ask("version"), "1.0\n");
}

TEST(Console, LogsInAfterAWrongPassword) {
  Device device(DeviceKind::kUnix, withLogin());
  Console dut(device.url(), atBoard());
  EXPECT_THROW(dut.login("root", "wrong"), LoginRefused);
  dut.login("root", "root");
  EXPECT_EQ(dut.ask("version"), "1.0\n");
}

TEST(Console, LogsInWhenTheDeviceAlreadyAsksForThePassword) {
  Device device(DeviceKind::kUnix, withLogin());
  Console dut(device.url(), atBoard());
  dut.expect("login: ");
  dut.send("root");
  dut.login("root", "root");
  EXPECT_EQ(dut.ask("version"), "1.0\n");
}

TEST(Console, TellsThatTheConnectionHasEndedAndWhatCameBefore) {
  Device device(DeviceKind::kTCP);
  Console dut(device.url(), patient());
  device.waitForConnections(1);
  device.send("last words");
  device.hangUp();
  try {
    dut.expect("never");
    FAIL();
  } catch (const Disconnected& error) {
    EXPECT_EQ(error.received(), "last words");
    EXPECT_EQ(error.code(), 3);
  }
  EXPECT_FALSE(dut.isOpen());
  EXPECT_EQ(dut.expect("words").before, "last ");
}

TEST(Console, TellsThatADifferentDeviceAnswers) {
  Device device(DeviceKind::kUnix, {.prompt = "[0000BEEF:00000001] :-) > "});
  Console dut(device.url(), patient({.prompt = "> ", .ecid = 0x0000BEEF0BADF00D}));
  EXPECT_THROW(dut.ask("version"), DeviceSwapped);
  EXPECT_THROW(dut.ask("version"), DeviceSwapped);
  EXPECT_THROW(dut.send("version"), DeviceSwapped);
}

TEST(Console, IsCancelledFromAnotherThreadWhileItWaits) {
  Device device(DeviceKind::kUnix, {.isSilent = true});
  Console dut(device.url(), {.prompt = "=> ", .timeout = 1h});
  std::thread other([&] {
    device.waitForCommands(1);
    dut.cancel();
  });
  EXPECT_THROW(dut.ask("version"), Cancelled);
  other.join();
}

TEST(Console, CancelsOperationsThatWaitForTheirTurnToo) {
  Device device(DeviceKind::kUnix, {.isSilent = true});
  Console dut(device.url(), {.prompt = "=> ", .timeout = 1h});
  std::atomic<int> cancelled = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      try {
        dut.ask("version");
      } catch (const Cancelled&) {
        ++cancelled;
      }
    });
  }
  device.waitForCommands(1);
  while (cancelled < 3) {
    dut.cancel();
    std::this_thread::yield();
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(Console, IsInterruptedByItsCallersFunction) {
  Device device(DeviceKind::kUnix, {.isSilent = true});
  int asked = 0;
  Console dut(device.url(),
              {.prompt = "=> ", .timeout = 1h, .isInterrupted = [&] { return ++asked == 3; }});
  EXPECT_THROW(dut.ask("version"), Cancelled);
  EXPECT_EQ(asked, 3);
}

TEST(Console, IgnoresACancelThatCameBeforeTheOperation) {
  Device device(DeviceKind::kUnix, {.responses = {{"version", "1.0\n"}}});
  Console dut(device.url(), patient());
  dut.cancel();
  EXPECT_EQ(dut.ask("version"), "1.0\n");
}

TEST(Console, EndsARunningOperationWhenItIsClosed) {
  Device device(DeviceKind::kUnix, {.isSilent = true});
  Console dut(device.url(), {.prompt = "=> ", .timeout = 1h});
  std::thread other([&] {
    device.waitForCommands(1);
    dut.close();
  });
  EXPECT_THROW(dut.ask("version"), Disconnected);
  other.join();
  dut.close();
  EXPECT_FALSE(dut.isOpen());
  EXPECT_THROW(dut.send("version"), Disconnected);
}

TEST(Console, GivesEachOfSeveralThreadsItsOwnAnswer) {
  Device device(DeviceKind::kUnix);
  device.setBehaviour({.respond = [](const std::string& command) -> DeviceAnswer {
    return "answer to " + command + "\n";
  }});
  Console dut(device.url(), patient());
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&dut, i] {
      for (int j = 0; j < 50; ++j) {
        const std::string command = std::to_string(i) + "." + std::to_string(j);
        EXPECT_EQ(dut.ask(command), "answer to " + command + "\n");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(Console, WaitsForItsTurnNoLongerThanItsTime) {
  Device device(DeviceKind::kUnix, {.isSilent = true});
  Console dut(device.url(), {.prompt = "=> ", .timeout = 1h});
  std::thread other([&] { EXPECT_THROW(dut.ask("version"), Cancelled); });
  device.waitForCommands(1);
  EXPECT_THROW(dut.ask("version", 10ms), Timeout);
  dut.cancel();
  other.join();
}

TEST(Console, WritesToAPeerThatDoesNotReadNoLongerThanItsTime) {
  const support::SilentListener peer(1);
  Console dut(peer.url(), {.timeout = 100ms});
  EXPECT_THROW(dut.write(std::string(size_t{8} << 20, 'x')), Timeout);
}

TEST(Console, ReadsWhileItWritesToADeviceThatWaitsForThat) {
  const size_t count = size_t{2} << 20;
  Device device(DeviceKind::kUnix, {.echoes = true});
  Console dut(device.url(), patient());
  dut.send(std::string(count, 'x'));
  EXPECT_EQ(dut.expect("\n").before.size(), count);
}

TEST(Console, KeepsNoMoreThanItsLimitOfWhatNobodyReads) {
  Device device(DeviceKind::kUnix);
  Console dut(device.url(), patient({.limit = 1000}));
  device.send(std::string(5000, 'x') + "the end");
  device.waitUntilAllIsSent();
  const Hit hit = dut.expect("the end");
  EXPECT_LE(hit.before.size(), 1000U);
  EXPECT_EQ(hit.lost + hit.before.size(), 5000U);
  EXPECT_EQ(dut.lost(), hit.lost);
}

TEST(Console, DrainsTheDeviceWhileNobodyCalls) {
  Device device(DeviceKind::kUnix);
  Console dut(device.url(), patient());
  const std::string much(size_t{4} << 20, 'x');
  device.send(much);
  EXPECT_TRUE(device.waitUntilAllIsSent());
  device.send("end");
  EXPECT_EQ(dut.expect("end").before.size(), much.size());
}

TEST(Console, FindsAPromptAfter16MiB) {
  Device device(DeviceKind::kUnix);
  Console dut(device.url(), patient({.limit = size_t{17} << 20}));
  device.send(std::string(size_t{16} << 20, 'x') + "=> ");
  EXPECT_EQ(dut.expect({regex("[^>]*never"), "=> "}).before.size(), size_t{16} << 20);
}

TEST(Console, RecordsLinesWithTheirTimes) {
  Device device(DeviceKind::kUnix);
  Console dut(device.url(), patient());
  const auto start = std::chrono::system_clock::now();
  device.send("one\r\ntwo\nthr");
  dut.expect("one\r\n");
  const std::vector<TimedLine> lines = dut.record(50ms);
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].text, "two");
  EXPECT_EQ(lines[1].text, "thr");
  EXPECT_GE(lines[0].time + 1s, start);
  EXPECT_LE(lines[0].time, std::chrono::system_clock::now());
}

TEST(Console, SendsControlCharacters) {
  Device device(DeviceKind::kUnix);
  Console dut(device.url(), patient());
  dut.interrupt();
  dut.sendControl("eof");
  dut.write("\n");
  EXPECT_TRUE(device.waitForReceived("\x03\x04\n"));
  EXPECT_THROW(dut.sendControl("break"), std::invalid_argument);
}

TEST(Console, NeedsAPromptForSomeOperations) {
  Device device(DeviceKind::kUnix);
  Console dut(device.url());
  EXPECT_THROW(dut.ask("version"), std::logic_error);
  EXPECT_THROW(dut.reboot("reset"), std::logic_error);
  EXPECT_THROW(dut.expect(std::vector<Pattern>()), std::invalid_argument);
}

TEST(Console, TellsOfAnExpressionThatIsTooHard) {
  Device device(DeviceKind::kUnix);
  Console dut(device.url(), patient());
  device.send(std::string(60, 'a') + "b");
  dut.expect("a");
  try {
    dut.expect(regex("^(?:a|aa)+$"));
    FAIL();
  } catch (const Error& error) {
    EXPECT_EQ(error.code(), static_cast<int>(ErrorCode::kTooHard));
  }
}

TEST(Console, LeaksNoDescriptorInTenThousandReopenings) {
  Device device(DeviceKind::kUnix);
  Console dut(device.url(), patient());
  constexpr size_t kTimes = 10000;
  device.waitForConnections(1);
  const size_t before = openDescriptors();
  for (size_t i = 0; i < kTimes; ++i) dut.reopen();
  device.waitForConnections(1 + kTimes);
  EXPECT_EQ(openDescriptors(), before);
}

TEST(Console, SixteenTalkInSixteenThreads) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; ++i) {
    threads.emplace_back([i] {
      const std::string answer = std::to_string(i) + "\n";
      Device device(DeviceKind::kUnix, {.responses = {{"who", answer}}});
      Console dut(device.url(), patient());
      for (int j = 0; j < 100; ++j) EXPECT_EQ(dut.ask("who"), answer);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(Console, CanBeMoved) {
  Device device(DeviceKind::kUnix, {.responses = {{"version", "1.0\n"}}});
  Console first(device.url(), patient());
  Console second = std::move(first);
  EXPECT_EQ(second.ask("version"), "1.0\n");
}

}  // namespace
