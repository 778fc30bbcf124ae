// Whole comm stacks in trouble: peers that hang up, devices that are swapped, stacks that are
// destroyed while open.

#include <unistd.h>

#include <cerrno>

#include "Stacks/CommStackFixture.h"
#include "Support/OpenDescriptors.h"
#include "Support/ScriptedStack.h"
#include "Support/SystemCalls.h"
#include "Utility/ZPIUnixSocketFunctions.h"
#include "Utility/ZPKSocketFunctions.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* kNotOpen =
    "UART port not open, please call \"open\" before calling functions that talk over UART";
constexpr const char* kRightPrompt = "[00000000:0000000A] :-) ";
constexpr const char* kOtherPrompt = "[00000000:0000000B] :-) ";
constexpr const char* kSwapText =
    "Expected ECID: [00000000:0000000A] Read ECID: [00000000:0000000B]";

class CommStackFailureTest : public CommStackFixture {
 protected:
  // The stack has closed by itself: it does not talk, and cannot be closed again.
  void expectLost() {
    EXPECT_EQ(stack->isOpen(), 0);
    ZPKErrorPtr error;
    log.clear();
    EXPECT_FALSE(stack->writeString("anybody?", &error));
    expectFailure(error, log, commStackFailure(304, kNotOpen, "writeData:error:"));
    log.clear();
    EXPECT_FALSE(stack->close(&error));
    expectFailure(
        error, log,
        {"zephal-communication", 2, "Device Already Closed", "close", "DescriptorOperation.h"});
  }

  // Makes the line usable again after the peer has gone: a terminal goes away with its device.
  void reconnect() {
    if (isTerminal()) {
      connect();
    } else {
      open();
    }
  }

  void connectGuarded() {
    stack->enableECIDSwapDetectionWithECID(0xA);
    stack->setDelimiter(":-) ");
    connect({.prompt = kRightPrompt});
    EXPECT_EQ(ask("who"), kRightPrompt);
  }
};

INSTANTIATE_TEST_SUITE_P(, CommStackFailureTest, allLineKinds(), lineKindName);

// --- The peer hangs up.

TEST_P(CommStackFailureTest, AHangUpInMidResponseClosesTheStack) {
  connect({.responses = {{"ask", "answer"}}, .hangsUpAfter = 3});
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(ask("ask", &error), std::nullopt);
  EXPECT_THAT(descriptionOf(error), StartsWith("Read failed with error "));
  expectFailure(error, log,
                {"zephal-communication", 5, descriptionOf(error), "zephal_communication_read",
                 "DescriptorOperation.cpp"});
  // A terminal that hangs up discards the bytes that were not read yet.
  EXPECT_THAT("ans", StartsWith(heldBytes()));
  if (!isTerminal()) {
    EXPECT_EQ(heldBytes(), "ans");
  }
  expectLost();
}

TEST_P(CommStackFailureTest, AReadWithoutALimitReportsADisconnectedClient) {
  connect({.responses = {{"ask", "answer"}}, .hangsUpAfter = 3});
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(stack->sendCommandString("ask", std::nullopt, &error), std::nullopt);
  expectError(error, {"zephal-communication", 5, "Client disconnected", "readWithTimeout",
                      "DescriptorOperation.h"});
  EXPECT_THAT(log.texts(),
              ElementsAre(StartsWith("Read failed with error "), "Client disconnected"));
  expectLost();
}

TEST_P(CommStackFailureTest, TheNextReadThatWaitsDetectsAHangUp) {
  connect();
  device->hangUp();
  ZPKErrorPtr error;
  EXPECT_EQ(stack->readDataWithTimeout(0, nullptr, &error), nullptr);
  EXPECT_EQ(codeOf(error), 305);
  EXPECT_EQ(stack->isOpen(), 1);
  EXPECT_EQ(read(&error), std::nullopt);
  EXPECT_EQ(codeOf(error), 5);
  expectLost();
}

TEST_P(CommStackFailureTest, BytesHeldFromALostLineBeginTheNextResponse) {
  connect();
  device->send("held ");
  ASSERT_TRUE(waitUntilHeld("held "));
  device->hangUp();
  EXPECT_EQ(read(), std::nullopt);
  expectLost();
  EXPECT_EQ(heldBytes(), "held ");
  reconnect();
  EXPECT_EQ(ask("ask"), isTerminal() ? "=> " : "held => ");
}

TEST_P(CommStackFailureTest, AWriteAfterAHangUpLeavesTheStackOpen) {
  connect();
  device->hangUp();
  ZPKErrorPtr error;
  // The system can still accept the first bytes for a peer that has just gone.
  ASSERT_TRUE(waitFor([&] { return !stack->writeString("anybody?", &error); }));
  EXPECT_THAT(descriptionOf(error), StartsWith("Write failed with "));
  expectFailure(error, log,
                {"zephal-communication", 5, descriptionOf(error), "zephal_communication_write",
                 "DescriptorOperation.cpp"});
  EXPECT_EQ(stack->isOpen(), 1);
  log.clear();
  EXPECT_EQ(ask("still there?", &error), std::nullopt);
  EXPECT_THAT(log.texts(), ElementsAre(StartsWith("Write failed with ")));
  EXPECT_TRUE(stack->close());
}

TEST_P(CommStackFailureTest, ReconnectsEachTimeThePeerHangsUp) {
  connect();
  const std::set<int> descriptors = openDescriptors();
  for (int round = 0; round < 30; ++round) {
    EXPECT_EQ(ask("ask"), "=> ");
    device->hangUp();
    EXPECT_EQ(read(), std::nullopt);
    EXPECT_FALSE(stack->close());
    reconnect();
  }
  EXPECT_EQ(ask("ask"), "=> ");
  EXPECT_EQ(openDescriptors().size(), descriptors.size());
}

TEST_P(CommStackFailureTest, ClosesAndOpensAgainManyTimes) {
  connect();
  const std::set<int> descriptors = openDescriptors();
  for (int round = 0; round < 30; ++round) {
    EXPECT_EQ(ask("ask"), "=> ");
    EXPECT_TRUE(stack->close());
    EXPECT_FALSE(stack->close());
    open();
  }
  EXPECT_EQ(ask("ask"), "=> ");
  EXPECT_EQ(openDescriptors().size(), descriptors.size());
}

TEST_P(CommStackFailureTest, AFailedOpenCanBeRetriedAndLeavesNothingBehind) {
  connect();
  ASSERT_TRUE(stack->close());
  if (isTerminal()) device->liftExclusiveHold();
  for (int round = 0; round < 3; ++round) {
    SystemCalls calls;
    calls.fail(isTerminal() ? "tcgetattr" : "connect", isTerminal() ? EIO : ECONNREFUSED);
    ZPKErrorPtr error = olderError();
    EXPECT_FALSE(stack->openWithTimeout(1, &error));
    if (isTerminal()) {
      EXPECT_EQ(codeOf(error), 4);
      device->liftExclusiveHold();
    } else {
      EXPECT_EQ(error, olderError());
    }
    EXPECT_EQ(stack->isOpen(), 0);
    EXPECT_EQ(calls.count(isTerminal() ? "open" : "socket"), 1U);
    EXPECT_EQ(calls.count("close"), 1U);
  }
  open();
  EXPECT_EQ(ask("ask"), "=> ");
}

// --- A different device answers.

TEST_P(CommStackFailureTest, ASwappedDeviceFailsReadsAndCommandsButNotWrites) {
  connectGuarded();
  device->setBehaviour({.prompt = kOtherPrompt});
  log.clear();
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(ask("who", &error), std::nullopt);
  expectFailure(error, log, commStackFailure(309, kSwapText, "sendCommandData:timeout:error:"));
  EXPECT_EQ(stack->ecidSwapInformation(), kSwapText);

  device->setBehaviour({.prompt = kRightPrompt});
  error = olderError();
  EXPECT_TRUE(stack->writeString("after the swap", &error));
  EXPECT_EQ(error, olderError());
  EXPECT_TRUE(device->waitForReceived("after the swap\n"));
  EXPECT_EQ(read(&error), std::nullopt);
  EXPECT_EQ(codeOf(error), 309);
  EXPECT_EQ(stack->readDataWithTimeout(0, nullptr, &error), nullptr);
  EXPECT_EQ(codeOf(error), 309);  // and not 305
}

TEST_P(CommStackFailureTest, ASwapOutlastsAReopenUntilItIsCleared) {
  connectGuarded();
  device->setBehaviour({.prompt = kOtherPrompt});
  EXPECT_EQ(ask("who"), std::nullopt);
  device->setBehaviour({.prompt = kRightPrompt});
  EXPECT_TRUE(stack->close());
  open();
  ZPKErrorPtr error;
  EXPECT_EQ(ask("who", &error), std::nullopt);
  EXPECT_EQ(descriptionOf(error), kSwapText);
  stack->setEcidSwapInformation(std::nullopt);
  EXPECT_EQ(ask("who"), kRightPrompt);
}

TEST_P(CommStackFailureTest, ASwapTakesPrecedenceOverTheReadsOwnFailure) {
  connectGuarded();
  device->setBehaviour({.prompt = kOtherPrompt});
  EXPECT_EQ(ask("who"), std::nullopt);
  device->hangUp();
  log.clear();
  ZPKErrorPtr error;
  EXPECT_EQ(read(&error), std::nullopt);
  expectError(error, commStackFailure(309, kSwapText, "readDataWithTimeout:delimiter:error:"));
  EXPECT_THAT(log.texts(), ElementsAre(StartsWith("Read failed with error "), kSwapText));
  expectLost();
}

TEST_P(CommStackFailureTest, ASwapIsDetectedInATricklingPrompt) {
  connectGuarded();
  device->setBehaviour(
      {.prompt = kOtherPrompt, .pause = std::chrono::milliseconds(0), .trickles = true});
  ZPKErrorPtr error;
  EXPECT_EQ(ask("who", &error), std::nullopt);
  EXPECT_EQ(codeOf(error), 309);
}

// --- Destroyed stacks, and sockets that were open before their stack existed.

TEST_P(CommStackFailureTest, AStackDestroyedWhileOpenClosesItsLine) {
  const std::set<int> before = openDescriptors();
  {
    connect();
    EXPECT_EQ(ask("ask"), "=> ");
  }
  log.clear();
  const SystemCalls calls;
  stack = nullptr;
  EXPECT_EQ(calls.count("close"), 1U);
  EXPECT_THAT(log.lines(), IsEmpty());
  device = nullptr;
  EXPECT_EQ(openDescriptors(), before);
}

TEST_P(CommStackFailureTest, AFailedCloseOfADestroyedStackIsLogged) {
  connect();
  SystemCalls calls;
  calls.fail("close", EIO);
  stack = nullptr;
  ASSERT_EQ(calls.all().size(), 1U);
  ::close(calls.all().front().descriptor);
  EXPECT_THAT(
      log.texts(),
      ElementsAre("Error closing port - Input/output error(5)",
                  "Error closing commChannel during dealloc : zephalbench.zephal-communication (4):"
                  " Error closing port - Input/output error(5)"));
}

class CommStackAdoptionTest : public CommStackFixture {};

INSTANTIATE_TEST_SUITE_P(, CommStackAdoptionTest,
                         testing::Values(SimulatedDevice::Kind::kTCP, SimulatedDevice::Kind::kUnix),
                         lineKindName);

TEST_P(CommStackAdoptionTest, AnAdoptedSocketIsOpenAlreadyAndCannotBeReopened) {
  device = std::make_unique<SimulatedDevice>(GetParam());
  const int socket = GetParam() == Kind::kTCP ? active_tcp("127.0.0.1", device->port())
                                              : active_unix(device->path());
  ASSERT_TRUE(stack->createStackWithBaseChannel(createActiveTCPChannelWithSocket(socket)));
  EXPECT_EQ(stack->isOpen(), 1);
  EXPECT_EQ(ask("ask"), "=> ");
  ZPKErrorPtr error;
  EXPECT_FALSE(stack->openWithTimeout(1, &error));
  EXPECT_EQ(codeOf(error), 303);
  EXPECT_TRUE(stack->close());
  EXPECT_FALSE(isOpenDescriptor(socket));
  error = olderError();
  EXPECT_FALSE(stack->openWithTimeout(1, &error));
  EXPECT_EQ(error, olderError());
}

}  // namespace
