// A channel gives up its descriptor while another thread is in a call on it. The program's next
// file gets the same number, and the call must not touch that file.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <future>
#include <string>
#include <tuple>
#include <vector>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Support/CheckedCalls.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/OpenDescriptors.h"
#include "Support/SystemCalls.h"
#include "Support/TemporaryFolder.h"
#include "Support/Timeouts.h"
#include "Support/TransportPeer.h"

using namespace support;

namespace {

using Kind = TransportPeer::Kind;
using testing::ElementsAre;

constexpr std::string_view kContents = "somebody else's";

std::string textOf(int number) {
  return std::string(std::strerror(number)) + " (" + std::to_string(number) + ")";
}

// More than the largest buffers of both ends hold.
ZPKDataPtr longCommand() {
  static const ZPKDataPtr command = ZPKData::dataWithString(std::string(32U << 20U, 'x'));
  return command;
}

// A long command whose write waits until the peer reads or the channel closes.
class BlockedWrite {
 public:
  BlockedWrite(const ZPKDataChannelPtr& channel, const TransportPeer& peer)
      : _result(std::async(std::launch::async,
                           [this, channel] { return channel->write(longCommand(), &_error); })) {
    EXPECT_TRUE(waitUntilReadable(peer.descriptor()));
  }

  bool ends() const { return _result.wait_for(kPatience) == std::future_status::ready; }

  // A part was sent, so the waiting call succeeded, and no further call was made.
  void expectFailure() {
    EXPECT_FALSE(_result.get());
    expectError(_error, {"zephal-communication", 5, "Write failed with " + textOf(EBADF),
                         "zephal_communication_write", "DescriptorOperation.cpp"});
  }

 private:
  ZPKErrorPtr _error;
  std::future<bool> _result;
};

// What the program opens next. Since the lowest free number is always used, one of these gets the
// number of a descriptor that has just been closed.
class OtherFiles {
 public:
  OtherFiles() {
    for (int number = 0; number < 8; ++number) {
      const std::string path = _folder.pathOf(std::to_string(number));
      const int file = checked(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600), "open");
      EXPECT_EQ(::pwrite(file, kContents.data(), kContents.size(), 0),
                static_cast<ssize_t>(kContents.size()));
      _files.push_back(file);
    }
  }
  OtherFiles(const OtherFiles&) = delete;
  OtherFiles& operator=(const OtherFiles&) = delete;
  ~OtherFiles() {
    for (int file : _files) closeIfOpen(&file);
  }

  void expectUntouched() const {
    for (const int file : _files) {
      EXPECT_EQ(::lseek(file, 0, SEEK_CUR), 0);
      EXPECT_EQ(::lseek(file, 0, SEEK_END), static_cast<off_t>(kContents.size()));
    }
  }

 private:
  TemporaryFolder _folder;
  std::vector<int> _files;
};

// --- Sockets, whose calls end when the channel gives them up

// Over each kind of socket, bare and below an active channel.
class LostSocketTest : public testing::TestWithParam<std::tuple<Kind, bool>> {
 protected:
  LostSocketTest() {
    if (std::get<1>(GetParam())) _channel = createActiveChannel(_channel);
    EXPECT_TRUE(_peer.open(_channel));
  }
  ~LostSocketTest() override {
    if (_channel->isOpened()) _channel->close();
  }

  // Makes the channel detect that its peer sends no more.
  void expectReadFails() {
    if (!std::get<1>(GetParam())) {
      EXPECT_EQ(_channel->readWithTimeout(kLong), nullptr);
    }
    EXPECT_TRUE(waitFor([&] { return !_channel->isOpened(); }));
  }

  const LogCapture _log;
  TransportPeer _peer{std::get<0>(GetParam())};
  ZPKDataChannelPtr _channel = _peer.makeChannel();
};

INSTANTIATE_TEST_SUITE_P(Sockets, LostSocketTest,
                         testing::Combine(testing::Values(Kind::kTCP, Kind::kUnix, Kind::kAdopted),
                                          testing::Bool()),
                         [](const auto& tested) {
                           return transportName(std::get<0>(tested.param)) +
                                  (std::get<1>(tested.param) ? "Active" : "");
                         });

TEST_P(LostSocketTest, AFailedReadLeavesTheRestOfAWriteUnsent) {
  BlockedWrite write(_channel, _peer);
  ::shutdown(_peer.descriptor(), SHUT_WR);
  expectReadFails();
  const OtherFiles files;
  _peer.hangUp();
  EXPECT_TRUE(write.ends());
  write.expectFailure();
  files.expectUntouched();
}

TEST_P(LostSocketTest, ACloseEndsABlockedWrite) {
  BlockedWrite write(_channel, _peer);
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(_channel->close(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_FALSE(_channel->isOpened());
  const OtherFiles files;
  EXPECT_TRUE(write.ends());
  _peer.hangUp();  // frees a writer that the close did not
  write.expectFailure();
  files.expectUntouched();
}

TEST_P(LostSocketTest, TheLastCallToEndClosesTheDescriptor) {
  const std::set<int> opened = openDescriptors();
  {
    BlockedWrite write(_channel, _peer);
    EXPECT_TRUE(_channel->close());
    EXPECT_TRUE(write.ends());
    _peer.hangUp();
    write.expectFailure();
  }
  ZPKErrorPtr error;
  EXPECT_FALSE(_channel->close(&error));
  EXPECT_EQ(error->description(), "Device Already Closed");
  EXPECT_LE(openDescriptors().size(), opened.size() - 2);  // neither end is left
}

// --- Reads during a close

class LostReadTest : public testing::TestWithParam<Kind> {
 protected:
  LostReadTest() { EXPECT_TRUE(_peer.open(_channel)); }

  // A read that waits in the system by the time this returns.
  std::future<ZPKDataPtr> startRead(double timeout) {
    SystemCalls calls(SystemCalls::Threads::kAll);
    auto result = std::async(std::launch::async, [this, timeout] {
      return _channel->readWithTimeout(timeout, &_error);
    });
    EXPECT_TRUE(waitFor([&] { return calls.count("select") == 1; }));
    return result;
  }

  void expectClosedDuringTheRead(const ZPKDataPtr& data) {
    EXPECT_EQ(data, nullptr);
    expectError(_error, {"zephal-communication", 2, "Device Already Closed", "close",
                         "DescriptorOperation.h"});
    EXPECT_THAT(_log.texts(),
                ElementsAre("Read failed with error " + textOf(EBADF), "Device Already Closed"));
  }

  TransportPeer _peer{GetParam()};
  const ZPKDataChannelPtr _channel = _peer.makeChannel();
  LogCapture _log;
  ZPKErrorPtr _error = olderError();
};

class LostSocketReadTest : public LostReadTest {};
class LostTerminalReadTest : public LostReadTest {};

INSTANTIATE_TEST_SUITE_P(Sockets, LostSocketReadTest,
                         testing::Values(Kind::kTCP, Kind::kUnix, Kind::kAdopted),
                         [](const auto& tested) { return transportName(tested.param); });
INSTANTIATE_TEST_SUITE_P(Terminals, LostTerminalReadTest, testing::Values(Kind::kTerminal),
                         [](const auto& tested) { return transportName(tested.param); });

TEST_P(LostSocketReadTest, ACloseEndsAReadThatWaits) {
  auto read = startRead(kLong * 30);
  EXPECT_TRUE(_channel->close());
  EXPECT_EQ(read.wait_for(kPatience), std::future_status::ready);
  _peer.hangUp();  // frees a reader that the close did not
  expectClosedDuringTheRead(read.get());
}

TEST_P(LostTerminalReadTest, AClosedReadReadsNothingFromAnotherFile) {
  auto read = startRead(kLong * 30);
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(_channel->close(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_FALSE(_channel->isOpened());
  const OtherFiles files;
  EXPECT_EQ(::write(_peer.descriptor(), "x", 1), 1);  // wakes the reader
  expectClosedDuringTheRead(read.get());
  files.expectUntouched();
}

TEST_P(LostTerminalReadTest, ATimeoutAfterACloseIsAFailure) {
  SystemCalls calls;
  calls.before("select", [this] { EXPECT_TRUE(_channel->close()); });
  expectClosedDuringTheRead(_channel->readWithTimeout(0.01, &_error));
}

// --- Terminals, whose writes only the peer can end

TEST(LostTerminalTest, ACloseLeavesTheRestOfAWriteUnsent) {
  const LogCapture log;
  TransportPeer peer(Kind::kTerminal);
  const ZPKDataChannelPtr channel = peer.makeChannel();
  ASSERT_TRUE(peer.open(channel));
  BlockedWrite write(channel, peer);
  EXPECT_TRUE(channel->close());
  EXPECT_FALSE(channel->isOpened());
  const OtherFiles files;
  peer.hangUp();
  EXPECT_TRUE(write.ends());
  write.expectFailure();
  files.expectUntouched();
}

}  // namespace
