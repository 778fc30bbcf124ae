// Tests station code without hardware: a station that checks the voltage of a board's rails, and
// simulated boards that do what real ones do on bad days.
#include <ZephalIO/ZephalIO.h>
#include <ZephalSimulator/SimulatedDevice.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// ---- The station code. In a project of yours it is somewhere else, and no test.

class Station {
 public:
  enum class Verdict { kGood, kBad, kNoAnswer };

  /// `seconds` is how long to wait for the board, and for each of its answers.
  Station(std::string url, std::string password, double seconds)
      : _url(std::move(url)), _password(std::move(password)), _seconds(seconds) {
    _stack->setDelimiter("# ");
  }

  void setPatience(double seconds) { _seconds = seconds; }

  /// Waits until the board has booted, and logs in.
  bool connect() {
    return openInTime() && read("login: ") && send("root") && read("Password: ") &&
           send(_password) && read("# ");
  }

  /// Whether a rail has between 95 % and 105 % of its voltage.
  Verdict check(const std::string& rail, double volts) {
    // A board that has gone away may have rebooted: it is worth one more connection.
    if (_stack->isOpen() == 0 && !connect()) return Verdict::kNoAnswer;
    const std::optional<double> measured = measure(rail);
    if (!measured.has_value()) return Verdict::kNoAnswer;
    return *measured >= 0.95 * volts && *measured <= 1.05 * volts ? Verdict::kGood : Verdict::kBad;
  }

 private:
  // A board that boots has no port yet.
  bool openInTime() {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::duration<double>(_seconds);
    while (!_stack->createStackWithURL(_url) || !_stack->openWithTimeout(std::nullopt)) {
      if (Clock::now() >= end) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
  }

  std::optional<double> measure(const std::string& rail) {
    const auto number = ZPKRegex::initWithPattern("([-0-9.]+) V");
    const auto text = _stack->sendCommandStringWithEchoRemoval("adc " + rail, number, _seconds);
    if (!text.has_value()) return std::nullopt;
    return std::strtod(text->c_str(), nullptr);
  }

  bool read(const std::string& end) {
    return _stack->readStringWithTimeout(_seconds, end).has_value();
  }
  bool send(const std::string& text) { return _stack->writeString(text); }

  const ZPKCommStackPtr _stack = ZPKCommStack::init();
  const std::string _url;
  const std::string _password;
  double _seconds;
};

// ---- Its tests.

namespace {

using zephal::DeviceAnswer;
using zephal::DeviceBehaviour;
using zephal::DeviceKind;
using zephal::SimulatedDevice;
using Verdict = Station::Verdict;

// Long enough for a busy machine. Only a test that fails waits that long.
constexpr double kLong = 30;
// For answers that never come.
constexpr double kShort = 0.2;

// A board with a Linux console.
DeviceBehaviour board() {
  return {.bootText = "Starting kernel ...\n",
          .login = zephal::DeviceLogin{.user = "root", .password = "secret"},
          .prompt = "# ",
          .echoes = true,
          .translatesLineEnds = true,
          .responses = {{"adc 3v3", "3v3: 3.31 V\n"}, {"adc 5v0", "5v0: 4.42 V\n"}}};
}

// Each test runs on each kind of line.
class StationTest : public testing::TestWithParam<DeviceKind> {};

INSTANTIATE_TEST_SUITE_P(Lines, StationTest,
                         testing::Values(DeviceKind::kTerminal, DeviceKind::kTCP,
                                         DeviceKind::kUnix));

TEST_P(StationTest, ARailWithinItsLimitsIsGood) {
  const SimulatedDevice device(GetParam(), board());
  Station station(device.url(), "secret", kLong);
  ASSERT_TRUE(station.connect());
  EXPECT_EQ(station.check("3v3", 3.3), Verdict::kGood);
  EXPECT_EQ(station.check("5v0", 5.0), Verdict::kBad);
  // All that the station said, and nothing that the board did not understand.
  const std::vector<std::string> conversation = {"root", "secret", "adc 3v3", "adc 5v0"};
  EXPECT_EQ(device.commands(), conversation);
  EXPECT_TRUE(device.unknownCommands().empty());
}

TEST_P(StationTest, AWrongPasswordIsNoConnection) {
  const SimulatedDevice device(GetParam(), board());
  Station station(device.url(), "wrong", kShort);
  EXPECT_FALSE(station.connect());
}

TEST_P(StationTest, ABoardThatSaysNothingHasNoVerdict) {
  SimulatedDevice device(GetParam(), board());
  Station station(device.url(), "secret", kLong);
  ASSERT_TRUE(station.connect());
  device.setBehaviour({.isSilent = true});
  station.setPatience(kShort);
  EXPECT_EQ(station.check("3v3", 3.3), Verdict::kNoAnswer);
}

TEST_P(StationTest, AnAnswerInSmallPiecesIsWhole) {
  DeviceBehaviour slow = board();
  slow.trickles = true;
  const SimulatedDevice device(GetParam(), slow);
  Station station(device.url(), "secret", kLong);
  ASSERT_TRUE(station.connect());
  EXPECT_EQ(station.check("3v3", 3.3), Verdict::kGood);
}

TEST_P(StationTest, ABoardThatHangsUpIsConnectedAgain) {
  DeviceBehaviour unstable = board();
  unstable.responses["adc 3v3"] = DeviceAnswer::reboot("3v3: ", std::chrono::milliseconds(100));
  SimulatedDevice device(GetParam(), unstable);
  Station station(device.url(), "secret", kLong);
  ASSERT_TRUE(station.connect());
  EXPECT_EQ(station.check("3v3", 3.3), Verdict::kNoAnswer);
  device.setBehaviour(board());
  EXPECT_EQ(station.check("3v3", 3.3), Verdict::kGood);
}

TEST_P(StationTest, ABoardThatIsOffIsNotConnected) {
  SimulatedDevice device(GetParam(), board());
  device.powerOff();
  Station station(device.url(), "secret", kShort);
  EXPECT_FALSE(station.connect());
  device.powerOn();
}

}  // namespace
