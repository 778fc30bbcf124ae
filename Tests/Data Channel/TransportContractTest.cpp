// The contract of a channel, over every transport: what a read can return, and what open, close and
// reset do in each state.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>

#include "Data Channel/ZPKDataChannel.h"
#include "Support/ErrorExpectations.h"
#include "Support/OpenDescriptors.h"
#include "Support/OrdinaryUser.h"
#include "Support/SystemCalls.h"
#include "Support/TransportPeer.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Kind = TransportPeer::Kind;

ZPKDataPtr bytes(std::string_view text) { return ZPKData::dataWithString(text); }

class TransportContractTest : public testing::TestWithParam<Kind> {
 protected:
  TransportContractTest() { EXPECT_TRUE(_peer.open(_channel)); }
  ~TransportContractTest() override {
    if (_channel->isOpened()) _channel->close();
  }

  void expectUntouched() {
    EXPECT_EQ(_error, olderError());
    EXPECT_THAT(_log.lines(), IsEmpty());
  }

  static std::string endOfFileText() {
    return std::string("Read failed with error ") + std::strerror(0) + " (0)";
  }

  static ExpectedFailure stateFailure(int code, const char* text, const char* function) {
    return {"zephal-communication", code, text, function, "DescriptorOperation.h"};
  }

  std::string resetFunction() const {
    return GetParam() == Kind::kTerminal ? "-[ZPIUARTChannel reset:]"
                                         : "-[ZPIEndpointSocket reset:]";
  }

  std::string resetFile() const {
    return GetParam() == Kind::kTerminal ? "ZPIUARTChannel.cpp" : "ZPIEndpointSocket.cpp";
  }

  TransportPeer _peer{GetParam()};
  const ZPKDataChannelPtr _channel = _peer.makeChannel();
  LogCapture _log;
  ZPKErrorPtr _error = olderError();
};

// --- The four outcomes of a read

TEST_P(TransportContractTest, AReadReturnsTheBytesThatWait) {
  _peer.send("hello");
  for (const double timeout :
       {20.0, ZEPHAL_COMMUNICATION_TIME_NOW, ZEPHAL_COMMUNICATION_TIME_FOREVER}) {
    const ZPKDataPtr data = _channel->readWithTimeout(timeout, &_error);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->view(), "hello");
    _peer.send("hello");
  }
  expectUntouched();
  EXPECT_TRUE(_channel->isOpened());
}

TEST_P(TransportContractTest, AReadReturnsTheBytesThatArriveWhileItWaits) {
  SystemCalls calls;
  calls.before(
      "select", [this] { _peer.send("late"); }, 0, 2);
  for (const double timeout : {20.0, ZEPHAL_COMMUNICATION_TIME_FOREVER}) {
    const ZPKDataPtr data = _channel->readWithTimeout(timeout, &_error);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->view(), "late");
  }
  expectUntouched();
}

TEST_P(TransportContractTest, ReadingAnIdleChannelGivesEmptyDataWithoutFailure) {
  for (const double timeout : {ZEPHAL_COMMUNICATION_TIME_NOW, 0.01}) {
    const ZPKDataPtr data = _channel->readWithTimeout(timeout, &_error);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->length(), 0U);
  }
  expectUntouched();
  EXPECT_TRUE(_channel->isOpened());
}

TEST_P(TransportContractTest, EveryByteValuePassesInBothDirections) {
  std::string all;
  for (int value = 0; value < 256; ++value) all.push_back(static_cast<char>(value));
  _peer.send(all);
  std::string received;
  while (received.size() < all.size()) {
    const ZPKDataPtr data = _channel->readWithTimeout(20.0, &_error);
    ASSERT_NE(data, nullptr);
    ASSERT_NE(data->length(), 0U);
    received += data->view();
  }
  EXPECT_EQ(received, all);
  EXPECT_TRUE(_channel->write(bytes(all), &_error));
  EXPECT_EQ(_peer.receive(all.size()), all);
  expectUntouched();
}

TEST_P(TransportContractTest, AHangUpFailsTheReadAndClosesTheChannel) {
  _peer.hangUp();
  EXPECT_EQ(_channel->readWithTimeout(20.0, &_error), nullptr);
  expectFailure(_error, _log,
                {"zephal-communication", 5, endOfFileText(), "zephal_communication_read",
                 "DescriptorOperation.cpp"});
  EXPECT_FALSE(_channel->isOpened());
  EXPECT_FALSE(_channel->close(&_error));
  expectError(_error, stateFailure(2, "Device Already Closed", "close"));
}

TEST_P(TransportContractTest, UnderForeverAHangUpIsReportedAsClientDisconnected) {
  _peer.hangUp();
  EXPECT_EQ(_channel->readWithTimeout(ZEPHAL_COMMUNICATION_TIME_FOREVER, &_error), nullptr);
  expectError(_error, stateFailure(5, "Client disconnected", "readWithTimeout"));
  EXPECT_THAT(_log.texts(), ElementsAre(endOfFileText(), "Client disconnected"));
  EXPECT_FALSE(_channel->isOpened());
}

TEST_P(TransportContractTest, AHangUpIsNotNoticedByNow) {
  _peer.hangUp();
  const ZPKDataPtr data = _channel->readWithTimeout(ZEPHAL_COMMUNICATION_TIME_NOW, &_error);
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 0U);
  expectUntouched();
  EXPECT_TRUE(_channel->isOpened());
}

TEST_P(TransportContractTest, BytesBeforeAHangUpAreStillRead) {
  if (GetParam() == Kind::kTerminal) {
    // A terminal that is unplugged loses its unread bytes.
    _peer.send("last words");
    _peer.hangUp();
    ZPKDataPtr data = _channel->readWithTimeout(20.0, &_error);
    if (data != nullptr) data = _channel->readWithTimeout(20.0, &_error);
    EXPECT_EQ(data, nullptr);
    return;
  }
  _peer.send("last words");
  _peer.hangUp();
  EXPECT_EQ(_channel->readWithTimeout(20.0, &_error)->view(), "last words");
  expectUntouched();
  EXPECT_EQ(_channel->readWithTimeout(20.0, &_error), nullptr);
}

TEST_P(TransportContractTest, ABadTimeoutIsRefusedAndTheChannelStaysOpen) {
  EXPECT_EQ(_channel->readWithTimeout(-0.5, &_error), nullptr);
  expectFailure(_error, _log, stateFailure(3, "time out has an invalid value", "readWithTimeout"));
  EXPECT_TRUE(_channel->isOpened());
}

TEST_P(TransportContractTest, AClosedChannelRefusesToTalk) {
  ASSERT_TRUE(_channel->close());
  EXPECT_EQ(_channel->readWithTimeout(1.0, &_error), nullptr);
  expectFailure(_error, _log,
                stateFailure(2, "Cannot communicate with closed devices", "readWithTimeout"));
  _log.clear();
  EXPECT_FALSE(_channel->write(bytes("x"), &_error));
  expectFailure(_error, _log, stateFailure(2, "Cannot communicate with closed devices", "write"));
  EXPECT_EQ(_channel->readWithTimeout(1.0), nullptr);
  EXPECT_FALSE(_channel->write(ZPKData::data()));
}

// --- Writes

TEST_P(TransportContractTest, WritesTheDataAndNothingForEmptyOrNull) {
  {
    const SystemCalls calls;
    EXPECT_TRUE(_channel->write(ZPKData::data(), &_error));
    EXPECT_TRUE(_channel->write(nullptr, &_error));
    EXPECT_THAT(calls.all(), IsEmpty());
  }
  EXPECT_TRUE(_channel->write(bytes("hello"), &_error));
  EXPECT_EQ(_peer.receive(5), "hello");
  expectUntouched();
}

TEST_P(TransportContractTest, AFailedWriteLeavesTheChannelOpen) {
  const char* const call = GetParam() == Kind::kTerminal ? "write" : "send";
  {
    SystemCalls calls;
    calls.fail(call, EIO);
    EXPECT_FALSE(_channel->write(bytes("x"), &_error));
  }
  expectFailure(
      _error, _log,
      {"zephal-communication", 5, std::string("Write failed with ") + std::strerror(EIO) + " (5)",
       "zephal_communication_write", "DescriptorOperation.cpp"});
  EXPECT_TRUE(_channel->isOpened());
  EXPECT_TRUE(_channel->write(bytes("y")));
  EXPECT_EQ(_peer.receive(1), "y");
}

TEST_P(TransportContractTest, ReadsAndWritesAtTheSameTime) {
  constexpr size_t kSize = 20000;
  auto echo = std::async(std::launch::async, [this] {
    size_t done = 0;
    while (done < kSize) {
      const std::string text = _peer.receive(100);
      // Not send, which waits until the bytes can be read: the reader may already have them by
      // then.
      if (text.empty() || ::write(_peer.descriptor(), text.data(), text.size()) < 1) return false;
      done += text.size();
    }
    return true;
  });
  auto writer = std::async(std::launch::async, [this] {
    for (size_t done = 0; done < kSize; done += 100) {
      if (!_channel->isOpened() || !_channel->write(bytes(std::string(100, 'x')))) return false;
    }
    return true;
  });
  size_t received = 0;
  while (received < kSize) {
    const ZPKDataPtr data = _channel->readWithTimeout(20.0, &_error);
    if (data == nullptr || data->length() == 0) break;
    received += data->length();
  }
  EXPECT_EQ(received, kSize);
  EXPECT_TRUE(writer.get());
  EXPECT_TRUE(echo.get());
}

// --- Open, close, reset

TEST_P(TransportContractTest, OpeningAnOpenChannelFailsAndKeepsIt) {
  EXPECT_FALSE(_channel->openWithTimeout(1.0, &_error));
  expectFailure(_error, _log, stateFailure(1, "Device Already Opened", "openWithTimeout"));
  EXPECT_FALSE(_channel->openWithTimeout(1.0));
  _peer.send("x");
  EXPECT_EQ(_channel->readWithTimeout(20.0)->view(), "x");
}

TEST_P(TransportContractTest, ClosingAClosedChannelFails) {
  EXPECT_TRUE(_channel->close(&_error));
  expectUntouched();
  EXPECT_FALSE(_channel->isOpened());
  EXPECT_FALSE(_channel->close(&_error));
  expectFailure(_error, _log, stateFailure(2, "Device Already Closed", "close"));
  EXPECT_FALSE(_channel->close());
  EXPECT_FALSE(_channel->isOpened());
}

TEST_P(TransportContractTest, ResettingAnOpenChannelFailsAndIsHarmless) {
  EXPECT_FALSE(_channel->reset(&_error));
  expectFailure(_error, _log,
                {"zephal-communication", 1, "Reset not supported while channel is open",
                 resetFunction(), resetFile()});
  _peer.send("x");
  EXPECT_EQ(_channel->readWithTimeout(20.0)->view(), "x");
}

TEST_P(TransportContractTest, ResettingAClosedChannelSucceedsAndKeepsItClosed) {
  ASSERT_TRUE(_channel->close());
  const SystemCalls calls;
  EXPECT_TRUE(_channel->reset(&_error));
  EXPECT_TRUE(_channel->reset(&_error));
  EXPECT_THAT(calls.all(), IsEmpty());
  EXPECT_FALSE(_channel->isOpened());
  expectUntouched();
}

TEST_P(TransportContractTest, CanBeReopenedAnyNumberOfTimes) {
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(_channel->close());
    ASSERT_TRUE(_channel->reset());
    if (!_peer.canReopen()) {
      EXPECT_FALSE(_channel->openWithTimeout(1.0, &_error));
      expectUntouched();
      return;
    }
    ASSERT_TRUE(_peer.open(_channel));
    _peer.send("x");
    EXPECT_EQ(_channel->readWithTimeout(20.0)->view(), "x");
    EXPECT_TRUE(_channel->write(bytes("y")));
    EXPECT_EQ(_peer.receive(1), "y");
  }
  expectUntouched();
}

INSTANTIATE_TEST_SUITE_P(Transports, TransportContractTest,
                         testing::Values(Kind::kTerminal, Kind::kTCP, Kind::kUnix, Kind::kAdopted),
                         [](const auto& kind) { return transportName(kind.param); });

// A caller may have created an adopted descriptor without thinking of programs started later.
TEST(TransportInheritanceTest, AStartedProgramInheritsNoChannel) {
  for (const Kind kind : {Kind::kTerminal, Kind::kTCP, Kind::kUnix, Kind::kAdopted}) {
    const std::set<int> before = openDescriptors();
    TransportPeer peer(kind);
    ASSERT_THAT(inheritedOf(descriptorsSince(before)), IsEmpty());
    if (kind == Kind::kAdopted) {
      ASSERT_EQ(::fcntl(peer.nearEnd(), F_SETFD, 0), 0);
      ASSERT_THAT(inheritedOf({peer.nearEnd()}), ElementsAre(peer.nearEnd()));
    }
    const ZPKDataChannelPtr channel = peer.makeChannel();
    ASSERT_TRUE(peer.open(channel));
    EXPECT_THAT(inheritedOf(descriptorsSince(before)), IsEmpty()) << transportName(kind);
    EXPECT_TRUE(channel->close());
  }
}

// Like the first program of a pipeline whose second ends early: if the signal were ignored, the
// program would not end.
bool doesSigpipeEndAStartedProgram() {
  const int status = std::system("kill -PIPE $$");
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE;
}

TEST(TransportInheritanceTest, SigpipeStillEndsAStartedProgram) {
  for (const Kind kind : {Kind::kTerminal, Kind::kTCP, Kind::kUnix, Kind::kAdopted}) {
    const ChildResult result = runInChild([kind](std::string*) {
      ::signal(SIGPIPE, SIG_IGN);
      if (doesSigpipeEndAStartedProgram()) return 2;  // then the check itself is wrong
      ::signal(SIGPIPE, SIG_DFL);
      TransportPeer peer(kind);
      const ZPKDataChannelPtr channel = peer.makeChannel();
      if (!peer.open(channel) || !channel->write(bytes("x"))) return 3;
      return doesSigpipeEndAStartedProgram() ? 0 : 1;
    });
    EXPECT_EQ(result.status, 0) << transportName(kind) << result.message;
  }
}

// A failed read closes the channel, which can be opened again if its peer still listens.
TEST(TransportReopenTest, OpensAgainAfterAFailedRead) {
  for (const Kind kind : {Kind::kTCP, Kind::kUnix}) {
    TransportPeer peer(kind);
    const ZPKDataChannelPtr channel = peer.makeChannel();
    LogCapture log;
    for (int round = 0; round < 3; ++round) {
      ASSERT_TRUE(peer.open(channel));
      peer.hangUp();
      EXPECT_EQ(channel->readWithTimeout(20.0), nullptr);
      EXPECT_FALSE(channel->isOpened());
      EXPECT_TRUE(channel->reset());
    }
  }
}

}  // namespace
