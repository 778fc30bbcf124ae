// The life of a comm stack: create, open, close, destroy.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Data Stack/ZPKCommStack.h"
#include "Support/ScriptedStack.h"
#include "Support/SocketPair.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kAlreadyOpen =
    "UART port cannot already be open, please call \"close\" before calling open again";

// Makes the stack buffer bytes that do not end in a delimiter.
void holdBytes(const ScriptedStack& made, std::string_view bytes) {
  made->setTimeoutIsException(false);
  made.base->addRead(bytes);
  ASSERT_EQ(bytesOf(made->readDataWithTimeout(0, nullptr)), "");
  ASSERT_EQ(bytesOf(made->aggregator()->buffer()), bytes);
}

// A stack over one end of a socket pair.
struct SocketStack {
  SocketStack() { EXPECT_TRUE(stack->createStackWithBaseChannel(base)); }

  SocketPair pair;
  ZPKDataChannelPtr base = createActiveTCPChannelWithSocket(pair.takeOurs());
  ZPKCommStackPtr stack = ZPKCommStack::init();
};

class ZPKCommStackLifecycleTest : public testing::Test {
 protected:
  LogCapture log;
};

// --- Create.

TEST_F(ZPKCommStackLifecycleTest, CreatingFromAURLGivesAClosedStack) {
  for (const char* url :
       {"uart:///dev/nowhere?baud=9600", "tcp://127.0.0.1:1", "unix:///nowhere"}) {
    const auto stack = ZPKCommStack::init();
    ZPKErrorPtr error = olderError();
    EXPECT_TRUE(stack->createStackWithURL(url, &error)) << url;
    EXPECT_NE(stack->commChannel(), nullptr);
    EXPECT_EQ(stack->isOpen(), 0);
    EXPECT_EQ(error, olderError());
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackLifecycleTest, CreatingFromABadURLFailsWithTheFactorysError) {
  const auto stack = ZPKCommStack::init();
  const std::vector<std::optional<std::string_view>> urls = {std::nullopt, "", "device",
                                                             "http://host:80"};
  for (const auto& url : urls) {
    log.clear();
    ZPKErrorPtr error = olderError();
    EXPECT_FALSE(stack->createStackWithURL(url, &error));
    expectFailure(error, log,
                  {"zephal-communication", 3, "Invalid URL scheme",
                   "createBaseChannelWithTransport", "ZPKDataChannel.cpp"});
    EXPECT_EQ(stack->commChannel(), nullptr);
  }
}

TEST_F(ZPKCommStackLifecycleTest, ABadURLIsReportedBeforeAnOpenChain) {
  const ScriptedStack made;
  ZPKErrorPtr error;
  EXPECT_FALSE(made->createStackWithURL("nowhere", &error));
  EXPECT_EQ(codeOf(error), 3);
  EXPECT_FALSE(made->createStackWithURL("tcp://127.0.0.1:1", &error));
  EXPECT_EQ(codeOf(error), 303);
  EXPECT_EQ(made->isOpen(), 1);
}

TEST_F(ZPKCommStackLifecycleTest, CreatingCallsNothingOnTheBaseChannel) {
  const auto base = ScriptedChannel::make();
  const auto stack = ZPKCommStack::init();
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(stack->createStackWithBaseChannel(base, &error));
  EXPECT_THAT(base->calls(), IsEmpty());
  EXPECT_NE(stack->commChannel(), base);
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackLifecycleTest, ANullBaseChannelFailsWithoutErrorOrLogLine) {
  const auto stack = ZPKCommStack::init();
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->createStackWithBaseChannel(nullptr, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(stack->commChannel(), nullptr);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackLifecycleTest, ANullBaseChannelKeepsTheChainAndHeldBytes) {
  const ScriptedStack made;
  holdBytes(made, "held");
  made.base->setOpened(false);
  const ZPKDataChannelPtr chain = made->commChannel();
  EXPECT_FALSE(made->createStackWithBaseChannel(nullptr));
  EXPECT_EQ(made->commChannel(), chain);
  EXPECT_EQ(bytesOf(made->aggregator()->buffer()), "held");
}

TEST_F(ZPKCommStackLifecycleTest, AnOpenChainIsNotReplaced) {
  const ScriptedStack made;
  holdBytes(made, "held");
  const ZPKDataChannelPtr chain = made->commChannel();
  for (const auto& channel : {ScriptedChannel::make(), std::shared_ptr<ScriptedChannel>()}) {
    log.clear();
    ZPKErrorPtr error = olderError();
    EXPECT_FALSE(made->createStackWithBaseChannel(channel, &error));
    expectFailure(error, log,
                  commStackFailure(303, kAlreadyOpen, "createStackWithBaseChannel:error:"));
    EXPECT_EQ(made->commChannel(), chain);
    EXPECT_EQ(made->isOpen(), 1);
    EXPECT_EQ(bytesOf(made->aggregator()->buffer()), "held");
  }
}

TEST_F(ZPKCommStackLifecycleTest, ASecondCreateReplacesAClosedChainButKeepsSettings) {
  const ScriptedStack made;
  const auto aggregator = made->aggregator();
  const auto appender = made->appender();
  const auto checker = made->ecidChecker();
  made->setDelimiter("=> ");
  made->setLineTerminator("\r");
  holdBytes(made, "held");
  made.base->setOpened(false);

  const auto next = ScriptedChannel::make();
  ASSERT_TRUE(made->createStackWithBaseChannel(next));
  EXPECT_EQ(bytesOf(aggregator->buffer()), "");
  EXPECT_EQ(made->aggregator(), aggregator);
  EXPECT_EQ(made->appender(), appender);
  EXPECT_EQ(made->ecidChecker(), checker);
  next->addRead("answer => ");
  EXPECT_EQ(made->sendCommandString("ask", 1), "answer => ");
  EXPECT_THAT(next->writes(), ElementsAre("ask\r"));
}

TEST_F(ZPKCommStackLifecycleTest, AReplacedChainIsReleasedAtOnceAndNotCalled) {
  ScriptedStack made;
  made.base->addRead("answer> ");
  ASSERT_EQ(made->sendCommandString("ask", 1), "answer> ");
  made.base->setOpened(false);
  const std::weak_ptr<ScriptedChannel> old = made.base;
  const std::vector<std::string> calls = made.base->calls();
  ASSERT_TRUE(made->createStackWithBaseChannel(ScriptedChannel::make()));
  EXPECT_EQ(made.base->calls(), calls);
  made.base = nullptr;
  EXPECT_TRUE(old.expired());
}

TEST_F(ZPKCommStackLifecycleTest, AChainThatThePlainSetterRemovesIsReleased) {
  ScriptedStack made;
  made.base->addRead("answer> ");
  ASSERT_EQ(made->sendCommandString("ask", 1), "answer> ");
  const std::weak_ptr<ScriptedChannel> base = made.base;
  made.base = nullptr;
  made->setCommChannel(nullptr);
  EXPECT_TRUE(base.expired());
}

TEST_F(ZPKCommStackLifecycleTest, AChainFromThePlainSetterTalks) {
  const ScriptedStack made;
  const ZPKDataChannelPtr first = made->commChannel();
  const auto other = ScriptedChannel::make();
  made->setCommChannel(other);
  EXPECT_TRUE(made->writeString("to the other"));
  EXPECT_THAT(other->writes(), ElementsAre("to the other"));
  made->setCommChannel(first);
  EXPECT_TRUE(made->writeString("to the first"));
  EXPECT_THAT(made.base->writes(), ElementsAre("to the first\n"));
  made->setCommChannel(nullptr);
  ZPKErrorPtr error;
  EXPECT_FALSE(made->writeString("to nobody", &error));
  EXPECT_EQ(codeOf(error), 304);
}

// A pointer that owns nothing, to a channel that lives elsewhere.
TEST_F(ZPKCommStackLifecycleTest, AChainThatNobodyOwnsTalksToo) {
  ScriptedChannel base;
  base.addRead("answer> ");
  const auto stack = ZPKCommStack::init();
  stack->setCommChannel(ZPKDataChannelPtr(ZPKDataChannelPtr(), &base));
  EXPECT_EQ(stack->sendCommandString("ask", 1), "answer> ");
}

TEST_F(ZPKCommStackLifecycleTest, TheSameBaseChannelCanBeGivenAgain) {
  const ScriptedStack made;
  made.base->setOpened(false);
  ASSERT_TRUE(made->createStackWithBaseChannel(made.base));
  ASSERT_TRUE(made->openWithTimeout(1));
  made.base->addRead("once> twice> ");
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), "once> ");
  EXPECT_EQ(made->readStringWithTimeout(1, std::nullopt), "twice> ");
}

// What a create reports without one of the transformers, and at which layer.
struct MissingTransformer {
  const char* description;
  const char* function;
  void (*remove)(ZPKCommStack& stack);
};

TEST_F(ZPKCommStackLifecycleTest, AFailedCreateKeepsTheOldChain) {
  const std::vector<MissingTransformer> cases = {
      {"transformer cannot be nil", "createAggregatingTransformerChannel",
       [](ZPKCommStack& stack) { stack.setAggregator(nullptr); }},
      {"Objects in readTransformers must conform to ZPKDataTransformer",
       "createChannelTransformer__internal",
       [](ZPKCommStack& stack) { stack.setEcidChecker(nullptr); }},
      {"Objects in writeTransformers must conform to ZPKDataTransformer",
       "createChannelTransformer__internal",
       [](ZPKCommStack& stack) { stack.setAppender(nullptr); }}};
  for (const MissingTransformer& missing : cases) {
    log.clear();
    const ScriptedStack made;
    made.base->setOpened(false);
    const ZPKDataChannelPtr chain = made->commChannel();
    missing.remove(*made.stack);
    const auto next = ScriptedChannel::make();
    ZPKErrorPtr error = olderError();
    EXPECT_FALSE(made->createStackWithBaseChannel(next, &error));
    expectFailure(error, log,
                  {"zephal-communication", 3, missing.description, missing.function,
                   "ZPKDataChannelDecorators.cpp"});
    EXPECT_EQ(made->commChannel(), chain);
    EXPECT_THAT(next->calls(), IsEmpty());
    EXPECT_TRUE(next->isOpened());
  }
}

TEST_F(ZPKCommStackLifecycleTest, AFailedCreateHasEmptiedTheHeldBytes) {
  const ScriptedStack made;
  holdBytes(made, "held");
  made.base->setOpened(false);
  made->setEcidChecker(nullptr);
  EXPECT_FALSE(made->createStackWithBaseChannel(ScriptedChannel::make()));
  EXPECT_EQ(bytesOf(made->aggregator()->buffer()), "");
}

// --- Open.

TEST_F(ZPKCommStackLifecycleTest, OpenPassesItsTimeoutDownAndNullIsForever) {
  const ScriptedStack made;
  ZPKErrorPtr error = olderError();
  const std::vector<std::optional<ZPKNumber>> timeouts = {std::nullopt, 2.5, 0, 3, -1};
  for (const auto& timeout : timeouts) {
    made.base->setOpened(false);
    EXPECT_TRUE(made->openWithTimeout(timeout, &error));
    EXPECT_EQ(made->isOpen(), 1);
  }
  EXPECT_THAT(made.base->openTimeouts(), ElementsAre(-1.0, 2.5, 0.0, 3.0, -1.0));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackLifecycleTest, AFailedOpenReturnsTheErrorAndMayBeRepeated) {
  const ScriptedStack made;
  made.base->setOpened(false);
  made.base->setOpenResult(false, errorFromBelow());
  const ZPKDataChannelPtr chain = made->commChannel();
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(made->openWithTimeout(1, &error));
  EXPECT_EQ(error, errorFromBelow());
  EXPECT_FALSE(made->openWithTimeout(1));
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(made->isOpen(), 0);
  EXPECT_EQ(made->commChannel(), chain);

  made.base->setOpenResult(true);
  EXPECT_TRUE(made->openWithTimeout(1, &error));
  EXPECT_EQ(made->isOpen(), 1);
}

TEST_F(ZPKCommStackLifecycleTest, AfterAFailedOpenANewChainCanBeCreated) {
  const ScriptedStack made;
  made.base->setOpened(false);
  made.base->setOpenResult(false);
  ASSERT_FALSE(made->openWithTimeout(1));
  EXPECT_TRUE(made->createStackWithBaseChannel(ScriptedChannel::make()));
  EXPECT_EQ(made->isOpen(), 1);
}

TEST_F(ZPKCommStackLifecycleTest, ARefusedConnectionHasNoErrorAndCannotBeClosed) {
  const auto stack = ZPKCommStack::init();
  ASSERT_TRUE(stack->createStackWithURL("unix:///nowhere/at/all"));
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->openWithTimeout(1, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(stack->isOpen(), 0);
  log.clear();
  EXPECT_FALSE(stack->close(&error));
  expectFailure(
      error, log,
      {"zephal-communication", 2, "Device Already Closed", "close", "DescriptorOperation.h"});
}

TEST_F(ZPKCommStackLifecycleTest, IsOpenReturnsAnIntegerAndNeverTouchesTheSlot) {
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(ZPKCommStack::init()->isOpen(&error), 0);
  const ScriptedStack made;
  EXPECT_EQ(made->isOpen(&error), 1);
  EXPECT_TRUE(made->isOpen(&error).isInteger());
  made.base->setOpened(false);
  EXPECT_EQ(made->isOpen(&error), 0);
  EXPECT_TRUE(made->isOpen(&error).isInteger());
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(made.base->calls(), IsEmpty());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackLifecycleTest, AStackOnAnAdoptedSocketIsOpenAtOnce) {
  const SocketStack made;
  EXPECT_EQ(made.stack->isOpen(), 1);
  made.pair.send("hello> ");
  EXPECT_EQ(made.stack->readStringWithTimeout(30, std::nullopt), "hello> ");
  EXPECT_TRUE(made.stack->writeString("bye"));
  EXPECT_EQ(made.pair.receive(), "bye\n");

  log.clear();
  ZPKErrorPtr error;
  EXPECT_FALSE(made.stack->openWithTimeout(1, &error));
  expectFailure(error, log, commStackFailure(303, kAlreadyOpen, "openWithTimeout:error:"));
  EXPECT_EQ(made.stack->isOpen(), 1);
}

// --- Close.

TEST_F(ZPKCommStackLifecycleTest, CloseWithoutAChainFailsWithoutErrorOrLogLine) {
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(ZPKCommStack::init()->close(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackLifecycleTest, CloseWithoutOpenFailsWithCode2AndResetsNothing) {
  const auto stack = ZPKCommStack::init();
  ASSERT_TRUE(stack->createStackWithURL("unix:///nowhere/at/all"));
  stack->aggregator()->buffer()->setContents(*dataOf("held"));
  const ZPKDataChannelPtr chain = stack->commChannel();
  log.clear();
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(stack->close(&error));
  expectFailure(
      error, log,
      {"zephal-communication", 2, "Device Already Closed", "close", "DescriptorOperation.h"});
  EXPECT_FALSE(stack->close());
  EXPECT_EQ(stack->commChannel(), chain);
  EXPECT_EQ(stack->isOpen(), 0);
  EXPECT_EQ(bytesOf(stack->aggregator()->buffer()), "held");
}

TEST_F(ZPKCommStackLifecycleTest, AGoodCloseClosesThenResetsAndKeepsTheChain) {
  const ScriptedStack made;
  holdBytes(made, "held");
  made->setEcidSwapInformation("a swap");
  const ZPKDataChannelPtr chain = made->commChannel();
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(made->close(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(made.base->calls(), ElementsAre("read", "close", "reset"));
  EXPECT_EQ(made->isOpen(), 0);
  EXPECT_EQ(made->commChannel(), chain);
  EXPECT_EQ(bytesOf(made->aggregator()->buffer()), "");
  EXPECT_EQ(bytesOf(made->aggregator()->data2Find()), "> ");
  EXPECT_EQ(made->ecidSwapInformation(), "a swap");
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_TRUE(made->openWithTimeout(1));
}

TEST_F(ZPKCommStackLifecycleTest, AFailedCloseSkipsTheResetAndKeepsHeldBytes) {
  const ScriptedStack made;
  holdBytes(made, "held");
  made.base->setCloseResult(false, errorFromBelow());
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(made->close(&error));
  EXPECT_EQ(error, errorFromBelow());
  EXPECT_FALSE(made->close());
  EXPECT_THAT(made.base->calls(), ElementsAre("read", "close", "close"));
  EXPECT_EQ(bytesOf(made->aggregator()->buffer()), "held");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackLifecycleTest, AFailedResetFailsACloseThatIsOtherwiseDone) {
  const ScriptedStack made;
  holdBytes(made, "held");
  made.base->setResetResult(false, errorFromBelow());
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(made->close(&error));
  EXPECT_EQ(error, errorFromBelow());
  EXPECT_EQ(made->isOpen(), 0);
  EXPECT_EQ(bytesOf(made->aggregator()->buffer()), "");
}

TEST_F(ZPKCommStackLifecycleTest, AFailedTransportClosesTheStackAndCloseFails) {
  SocketStack made;
  made.pair.send("half");
  made.pair.closePeer();
  EXPECT_EQ(made.stack->readDataWithTimeout(30, nullptr), nullptr);
  EXPECT_EQ(made.stack->isOpen(), 0);
  EXPECT_NE(made.stack->commChannel(), nullptr);
  ZPKErrorPtr error;
  EXPECT_FALSE(made.stack->writeString("anybody?", &error));
  EXPECT_EQ(codeOf(error), 304);

  log.clear();
  EXPECT_FALSE(made.stack->close(&error));
  expectFailure(
      error, log,
      {"zephal-communication", 2, "Device Already Closed", "close", "DescriptorOperation.h"});
  EXPECT_EQ(bytesOf(made.stack->aggregator()->buffer()), "half");
  ASSERT_TRUE(made.stack->createStackWithBaseChannel(ScriptedChannel::make()));
  EXPECT_EQ(bytesOf(made.stack->aggregator()->buffer()), "");
}

// --- Destruction.

TEST_F(ZPKCommStackLifecycleTest, DestructionClosesAnOpenChainWithoutAReset) {
  const auto base = ScriptedChannel::make();
  {
    const auto stack = ZPKCommStack::init();
    ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  }
  EXPECT_THAT(base->calls(), ElementsAre("close"));
  EXPECT_FALSE(base->isOpened());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackLifecycleTest, DestructionLeavesAClosedChainAlone) {
  const auto base = ScriptedChannel::make();
  base->setOpened(false);
  {
    const auto stack = ZPKCommStack::init();
    ASSERT_TRUE(stack->createStackWithBaseChannel(base));
  }
  EXPECT_THAT(base->calls(), IsEmpty());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZPKCommStackLifecycleTest, AFailedCloseAtDestructionIsLogged) {
  const auto error =
      ZPKError::init("below", 42, {{std::string(ZPKErrorDescriptionKey), "100%@ %s%n gone"}});
  for (const ZPKErrorPtr& failure : {error, ZPKErrorPtr()}) {
    const ScriptedStack made;
    made.base->setCloseResult(false, failure);
  }
  EXPECT_THAT(log.lines(),
              ElementsAre(LogLine{0, "Error closing commChannel during dealloc : " +
                                         error->debugDescription()},
                          LogLine{0, "Error closing commChannel during dealloc : (null)"}));
}

TEST_F(ZPKCommStackLifecycleTest, TheSwapDetectorDoesNotKeepTheStackAlive) {
  auto stack = ZPKCommStack::init();
  stack->enableECIDSwapDetectionWithECID(1);
  const std::weak_ptr<ZPKCommStack> watched = stack;
  const auto checker = stack->ecidChecker();
  stack = nullptr;
  EXPECT_TRUE(watched.expired());
  ZPKMutableData prompt;
  prompt.append(*dataOf("[00000000:00000002] :-) "));
  checker->modifyData(&prompt);  // no stack is left to call back
  EXPECT_EQ(prompt.length(), 0U);
}

}  // namespace
