#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "ZephalConsole/Internal/Telnet.h"

namespace {

using namespace std::string_literals;
using zephal::internal::Telnet;

// What a client says first: binary and no go-ahead, both ways.
const std::string kHello = "\xff\xfb\x00\xff\xfd\x00\xff\xfb\x03\xff\xfd\x03"s;
const std::string kWillSerialPort = "\xff\xfb\x2c";

class ATelnetLine : public testing::Test {
 protected:
  explicit ATelnetLine(uint32_t baud = 0) : telnet(baud) { telnet.begin(send); }

  std::string receive(std::string bytes) {
    bytes.resize(telnet.receive(bytes.data(), bytes.size(), send));
    return bytes;
  }

  // What was sent since the last call.
  std::string takeSent() { return std::exchange(sent, {}); }

  size_t room = SIZE_MAX;
  std::string sent;
  Telnet::Send send = [this](std::string_view bytes) {
    const size_t count = std::min(bytes.size(), room);
    sent += bytes.substr(0, count);
    room -= count;
    return static_cast<ssize_t>(count);
  };
  Telnet telnet;
};

class ATelnetLineWithABaudRate : public ATelnetLine {
 protected:
  ATelnetLineWithABaudRate() : ATelnetLine(0x0001ff00) {}
};

TEST_F(ATelnetLine, AsksForBinaryFirst) { EXPECT_EQ(takeSent(), kHello); }

TEST_F(ATelnetLine, GivesDataWhereverItIsCut) {
  const std::string stream =
      "a\xff\xff\xff\xfb\x01"
      "b\xff\xfa\x2c\x65\xff\xff\xff\xf0"
      "c\xff\xf1"
      "d\r\0e\r\n"s;
  for (size_t cut = 0; cut <= stream.size(); ++cut) {
    Telnet fresh(0);
    std::string first = stream.substr(0, cut);
    std::string second = stream.substr(cut);
    first.resize(fresh.receive(first.data(), first.size(), send));
    second.resize(fresh.receive(second.data(), second.size(), send));
    EXPECT_EQ(first + second,
              "a\xff"
              "bcd\re\r\n")
        << cut;
  }
}

TEST_F(ATelnetLine, KeepsZeroBytesOnceTheServerIsBinary) {
  EXPECT_EQ(receive("\xff\xfb\x00\r\0"s), "\r\0"s);
  EXPECT_EQ(receive("\xff\xfc\x00\r\0"s), "\r"s);
}

TEST_F(ATelnetLine, DoesNotAnswerAnAgreement) {
  takeSent();
  receive("\xff\xfd\x00\xff\xfb\x00\xff\xfd\x03\xff\xfb\x03"s);
  EXPECT_EQ(takeSent(), "");
}

TEST_F(ATelnetLine, LetsTheServerEchoAndRefusesTheRest) {
  takeSent();
  receive("\xff\xfb\x01\xff\xfb\x01");
  EXPECT_EQ(takeSent(), "\xff\xfd\x01");
  receive("\xff\xfd\x18\xff\xfb\x2c\xff\xfd\x2c");
  EXPECT_EQ(takeSent(), "\xff\xfc\x18\xff\xfe\x2c\xff\xfc\x2c");
}

TEST_F(ATelnetLine, TurnsOffWhatTheServerTurnsOff) {
  takeSent();
  receive("\xff\xfe\x03\xff\xfe\x03\xff\xfc\x03");
  EXPECT_EQ(takeSent(), "\xff\xfc\x03\xff\xfe\x03");
  receive("\xff\xfd\x03");
  EXPECT_EQ(takeSent(), "\xff\xfb\x03");
}

TEST_F(ATelnetLineWithABaudRate, SetsItWhenTheServerAgrees) {
  EXPECT_EQ(takeSent(), kHello + kWillSerialPort);
  receive("\xff\xfd\x2c");
  EXPECT_EQ(takeSent(), "\xff\xfa\x2c\x01\x00\x01\xff\xff\x00\xff\xf0"s);
}

TEST_F(ATelnetLine, DoublesTheCommandByteInWhatItWrites) {
  takeSent();
  const std::string_view bytes = "a\xff\xff";
  EXPECT_EQ(telnet.write(bytes, send), 1);
  EXPECT_EQ(telnet.write(bytes.substr(1), send), 1);
  EXPECT_EQ(telnet.write(bytes.substr(2), send), 1);
  EXPECT_EQ(telnet.write("", send), 0);
  EXPECT_EQ(takeSent(), "a\xff\xff\xff\xff");
}

TEST_F(ATelnetLine, WritesNothingUntilWhatItOwesIsSent) {
  room = 1;
  EXPECT_EQ(telnet.write("\xff", send), 1);
  EXPECT_EQ(telnet.write("a", send), 0);
  room = 2;
  EXPECT_EQ(telnet.write("a", send), 1);
  EXPECT_EQ(takeSent(), kHello + "\xff\xff" + "a");
}

TEST_F(ATelnetLine, TellsOfAFailure) {
  const auto fail = [](std::string_view) -> ssize_t {
    errno = EPIPE;
    return -1;
  };
  EXPECT_EQ(telnet.write("\xff", fail), -1);
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(telnet.write("a", fail), -1);
}

TEST_F(ATelnetLine, OwesAServerThatDoesNotReadOnlySoMuch) {
  takeSent();
  room = 0;
  for (int i = 0; i < 10000; ++i) receive("\xff\xfd\x18");
  room = SIZE_MAX;
  receive("a");
  const std::string answers = takeSent();
  EXPECT_GT(answers.size(), 4000U);
  EXPECT_LE(answers.size(), 4096U);
}

}  // namespace
