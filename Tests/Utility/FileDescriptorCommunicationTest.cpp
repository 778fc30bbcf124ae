#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <future>
#include <limits>
#include <new>
#include <string>

#include "Support/Bytes.h"
#include "Support/DescriptorFailures.h"
#include "Support/ErrorExpectations.h"
#include "Support/FileDescriptorCommunicationFixture.h"
#include "Support/LogCapture.h"
#include "Support/SignalHandler.h"
#include "Support/SystemCalls.h"
#include "Utility/ZPKData.h"

using namespace support;

namespace {

using testing::ElementsAre;

using FileDescriptorCommunicationTest = FileDescriptorCommunicationFixture;

TEST_F(FileDescriptorCommunicationTest, OpensWithTheDescriptorThatThePolicyAcquires) {
  auto communication = closedOne();
  EXPECT_FALSE(communication.isOpen());
  _record.descriptor = _pair.ours;
  EXPECT_TRUE(communication.openWithTimeout(-0.5, &_error));
  EXPECT_TRUE(communication.isOpen());
  EXPECT_EQ(_error, olderError());
  EXPECT_TRUE(communication.write(dataOf("x"), &_error));
  EXPECT_EQ(_pair.receive(), "x");
}

TEST_F(FileDescriptorCommunicationTest, DescriptorZeroIsOpen) {
  RecordingCommunication communication(0, RecordingPolicy(&_record));
  EXPECT_TRUE(communication.isOpen());
  EXPECT_TRUE(communication.close(&_error));
  EXPECT_THAT(_record.closed, ElementsAre(0));
}

TEST_F(FileDescriptorCommunicationTest, AFailedOpenClosesItsDescriptorAndKeepsTheError) {
  auto communication = closedOne();
  _record.descriptor = 77;
  _record.isAcquireGood = false;
  _record.isCloseGood = false;
  EXPECT_FALSE(communication.openWithTimeout(1.0, &_error));
  EXPECT_EQ(_error, RecordingPolicy::stepError());
  EXPECT_FALSE(communication.isOpen());
  EXPECT_THAT(_record.closed, ElementsAre(77));
  EXPECT_THAT(_record.closedWithSlot, ElementsAre(false));
}

TEST_F(FileDescriptorCommunicationTest, AFailedOpenWithoutADescriptorClosesNothing) {
  auto communication = closedOne();
  _record.isAcquireGood = false;
  EXPECT_FALSE(communication.openWithTimeout(1.0, &_error));
  EXPECT_FALSE(communication.isOpen());
  EXPECT_TRUE(_record.closed.empty());
}

TEST_F(FileDescriptorCommunicationTest, OpeningAnOpenOneFailsAndKeepsTheDescriptor) {
  auto communication = openOne();
  EXPECT_FALSE(communication.openWithTimeout(1.0, &_error));
  expectFailure(_error, _log, communicationFailure(1, "Device Already Opened", "openWithTimeout"));
  EXPECT_FALSE(communication.openWithTimeout(1.0, nullptr));
  EXPECT_EQ(_log.count("Device Already Opened"), 2U);
  EXPECT_EQ(_record.acquired, 0);
  EXPECT_TRUE(communication.write(dataOf("x"), nullptr));
  EXPECT_EQ(_pair.receive(), "x");
}

TEST_F(FileDescriptorCommunicationTest, ClosingAClosedOneFailsAndTouchesNothing) {
  auto communication = closedOne();
  {
    const SystemCalls calls;
    EXPECT_FALSE(communication.close(&_error));
    EXPECT_TRUE(calls.all().empty());
  }
  expectFailure(_error, _log, communicationFailure(2, "Device Already Closed", "close"));
  EXPECT_FALSE(communication.close(nullptr));
  EXPECT_EQ(_log.count("Device Already Closed"), 2U);
  EXPECT_TRUE(_record.closed.empty());
}

TEST_F(FileDescriptorCommunicationTest, IsClosedEvenIfThePolicysCloseFails) {
  auto communication = openOne();
  _record.isCloseGood = false;
  EXPECT_FALSE(communication.close(&_error));
  EXPECT_EQ(_error, RecordingPolicy::closeError());
  EXPECT_FALSE(communication.isOpen());
  EXPECT_THAT(_record.closed, ElementsAre(_pair.ours));
}

TEST_F(FileDescriptorCommunicationTest, CanBeOpenedAgainAfterAClose) {
  auto communication = openOne();
  EXPECT_TRUE(communication.close(&_error));
  _record.descriptor = _pair.ours;
  EXPECT_TRUE(communication.openWithTimeout(1.0, &_error));
  EXPECT_TRUE(communication.isOpen());
  EXPECT_EQ(_error, olderError());
}

TEST_F(FileDescriptorCommunicationTest, ReadingAClosedOneFailsWithCode2) {
  auto communication = closedOne();
  // Checked before the timeout.
  EXPECT_EQ(communication.readWithTimeout(-0.5, &_error), nullptr);
  expectFailure(
      _error, _log,
      communicationFailure(2, "Cannot communicate with closed devices", "readWithTimeout"));
  EXPECT_EQ(communication.readWithTimeout(1.0, nullptr), nullptr);
  EXPECT_EQ(_log.count("Cannot communicate with closed devices"), 2U);
}

TEST_F(FileDescriptorCommunicationTest, WritingAnythingToAClosedOneFailsWithCode2) {
  auto communication = closedOne();
  EXPECT_FALSE(communication.write(ZPKData::data(), &_error));
  expectFailure(_error, _log,
                communicationFailure(2, "Cannot communicate with closed devices", "write"));
  EXPECT_FALSE(communication.write(nullptr, nullptr));
  EXPECT_EQ(_log.count("Cannot communicate with closed devices"), 2U);
}

TEST_F(FileDescriptorCommunicationTest, RejectsABadTimeoutBeforeAnySystemCall) {
  auto communication = openOne();
  for (const double timeout : {-0.5, -1.0000001, -2.0, -std::numeric_limits<double>::infinity(),
                               std::nan(""), -1.0e-300}) {
    _log.clear();
    {
      const SystemCalls calls;
      EXPECT_EQ(communication.readWithTimeout(timeout, &_error), nullptr);
      EXPECT_TRUE(calls.all().empty());
    }
    expectFailure(_error, _log,
                  communicationFailure(3, "time out has an invalid value", "readWithTimeout"));
    EXPECT_TRUE(communication.isOpen());
  }
  _log.clear();
  EXPECT_EQ(communication.readWithTimeout(-0.5, nullptr), nullptr);
  EXPECT_EQ(_log.count("time out has an invalid value"), 1U);
  EXPECT_TRUE(_record.closed.empty());
}

TEST_F(FileDescriptorCommunicationTest, AcceptsEveryGoodTimeout) {
  auto communication = openOne();
  for (const double timeout : {0.0, -0.0, 0.5, 1.0e300, -1.0}) {
    _pair.send("x");
    const ZPKDataPtr data = communication.readWithTimeout(timeout, &_error);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->view(), "x");
  }
  EXPECT_EQ(_error, olderError());
  EXPECT_TRUE(_log.lines().empty());
}

TEST_F(FileDescriptorCommunicationTest, AReadThatTimesOutLeavesItOpen) {
  auto communication = openOne();
  EXPECT_EQ(communication.readWithTimeout(0.01, &_error)->length(), 0U);
  EXPECT_EQ(communication.readWithTimeout(0.0, &_error)->length(), 0U);
  EXPECT_TRUE(communication.isOpen());
  EXPECT_EQ(_error, olderError());
  EXPECT_TRUE(_log.lines().empty());
}

TEST_F(FileDescriptorCommunicationTest, AFailedReadClosesAndALaterCloseFails) {
  auto communication = openOne();
  _pair.closePeer();
  EXPECT_EQ(communication.readWithTimeout(20.0, &_error), nullptr);
  expectFailure(_error, _log, readFailure(0));
  EXPECT_FALSE(communication.isOpen());
  EXPECT_THAT(_record.closed, ElementsAre(_pair.ours));
  EXPECT_THAT(_record.closedWithSlot, ElementsAre(true));
  EXPECT_FALSE(communication.close(&_error));
  expectError(_error, communicationFailure(2, "Device Already Closed", "close"));
}

TEST_F(FileDescriptorCommunicationTest, AFailedReadForeverReportsADisconnectedClient) {
  auto communication = openOne();
  _pair.closePeer();
  EXPECT_EQ(communication.readWithTimeout(ZEPHAL_COMMUNICATION_TIME_FOREVER, &_error), nullptr);
  expectError(_error, communicationFailure(5, "Client disconnected", "readWithTimeout"));
  EXPECT_THAT(_log.lines(), ElementsAre(LogLine{0, readFailure(0).description},
                                        LogLine{0, "Client disconnected"}));
  EXPECT_FALSE(communication.isOpen());
}

TEST_F(FileDescriptorCommunicationTest, AFailedReadForeverWithoutASlotLogsTwice) {
  auto communication = openOne();
  _pair.closePeer();
  EXPECT_EQ(communication.readWithTimeout(ZEPHAL_COMMUNICATION_TIME_FOREVER, nullptr), nullptr);
  EXPECT_THAT(_log.texts(), ElementsAre(readFailure(0).description, "Client disconnected"));
}

TEST_F(FileDescriptorCommunicationTest, AFailedSelectClosesToo) {
  auto communication = openOne();
  SystemCalls calls;
  calls.fail("select", EINVAL);
  EXPECT_EQ(communication.readWithTimeout(1.0, &_error), nullptr);
  EXPECT_EQ(_error->description(), "Select failed with error " + numberedErrorText(EINVAL) +
                                       ", fd=" + std::to_string(_pair.ours));
  EXPECT_FALSE(communication.isOpen());
}

TEST_F(FileDescriptorCommunicationTest, AFailedCloseReplacesTheErrorOfTheRead) {
  auto communication = openOne();
  _pair.closePeer();
  _record.isCloseGood = false;
  EXPECT_EQ(communication.readWithTimeout(20.0, &_error), nullptr);
  EXPECT_EQ(_error, RecordingPolicy::closeError());
  EXPECT_FALSE(communication.isOpen());
}

TEST_F(FileDescriptorCommunicationTest, ADisconnectedClientReplacesTheFailedClose) {
  auto communication = openOne();
  _pair.closePeer();
  _record.isCloseGood = false;
  EXPECT_EQ(communication.readWithTimeout(ZEPHAL_COMMUNICATION_TIME_FOREVER, &_error), nullptr);
  expectError(_error, communicationFailure(5, "Client disconnected", "readWithTimeout"));
}

TEST_F(FileDescriptorCommunicationTest, AFailedWriteLeavesItOpen) {
  auto communication = openOne();
  {
    SystemCalls calls;
    calls.fail("send", EIO);
    EXPECT_FALSE(communication.write(dataOf("x"), &_error));
  }
  expectFailure(_error, _log, writeFailure(EIO));
  EXPECT_TRUE(communication.isOpen());
  EXPECT_TRUE(_record.closed.empty());
  EXPECT_TRUE(communication.write(dataOf("x"), nullptr));
}

TEST_F(FileDescriptorCommunicationTest, ARealSignalDuringTheReadItselfClosesIt) {
  auto communication = openOne();
  const SignalHandler handler(SIGUSR1);
  SystemCalls calls(SystemCalls::Threads::kAll);
  // Somebody else reads the bytes between select and read, so that the read blocks.
  calls.before("read", [&] {
    char buffer[8];
    EXPECT_EQ(::recv(_pair.ours, buffer, sizeof buffer, 0), 5);
  });
  _pair.send("hello");
  std::promise<pthread_t> reader;
  auto result = std::async(std::launch::async, [&] {
    reader.set_value(::pthread_self());
    return communication.readWithTimeout(20.0, &_error);
  });
  const pthread_t thread = reader.get_future().get();
  EXPECT_TRUE(signalUntil(thread, [&] {
    return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }));
  _pair.send("x");  // releases a reader that no signal reached
  EXPECT_EQ(result.get(), nullptr);
  expectFailure(_error, _log, readFailure(EINTR));
  EXPECT_FALSE(communication.isOpen());
}

// Fails for lack of memory after the descriptor was closed.
struct ForgetfulPolicy : RecordingPolicy {
  using RecordingPolicy::RecordingPolicy;
  bool close(int32_t descriptor, ZPKErrorPtr* error) const {
    RecordingPolicy::close(descriptor, error);
    throw std::bad_alloc();
  }
};

TEST_F(FileDescriptorCommunicationTest, AWriterThatClosesWithoutMemoryReturns) {
  ZPIFileDescriptorCommunication<ForgetfulPolicy> communication(_pair.ours,
                                                                ForgetfulPolicy(&_record));
  SystemCalls calls;
  calls.before("send", [&] { EXPECT_TRUE(communication.close(&_error)); });
  EXPECT_FALSE(communication.write(dataOf("x"), nullptr));
  EXPECT_THAT(_record.closed, ElementsAre(_pair.ours));
  EXPECT_FALSE(communication.isOpen());
}

TEST_F(FileDescriptorCommunicationTest, AWriterAndAReaderRunAtTheSameTime) {
  auto communication = openOne();
  constexpr int kRounds = 200;
  auto writer = std::async(std::launch::async, [&] {
    for (int round = 0; round < kRounds; ++round) {
      if (!communication.isOpen() || !communication.write(dataOf("w"), nullptr)) return false;
    }
    return true;
  });
  auto peer = std::async(std::launch::async, [&] {
    for (int round = 0; round < kRounds; ++round) _pair.send("r");
  });
  size_t read = 0;
  while (read < kRounds) {
    const ZPKDataPtr data = communication.readWithTimeout(20.0, &_error);
    ASSERT_NE(data, nullptr);
    ASSERT_NE(data->length(), 0U);
    read += data->length();
  }
  EXPECT_TRUE(writer.get());
  peer.get();
  EXPECT_EQ(_pair.receive().size(), static_cast<size_t>(kRounds));
}

}  // namespace
