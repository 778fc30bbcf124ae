// Every failure that the comm stack reports itself, one row each: the error in the slot, the line
// in the log, the same without a slot, and the state in which the stack is left.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Data Stack/ZPKCommStack.h"
#include "Support/ScriptedStack.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

enum class State { kWithoutChain, kClosed, kOpen };

struct Row {
  const char* name;
  int code;
  const char* description;
  const char* operation;
  State state;
  // Makes the call; true if it returned the result of a failure.
  bool (*fails)(const ScriptedStack& made, ZPKErrorPtr* error);
  const char* response = "";   // what the device says
  const char* swap = nullptr;  // a swap that was detected before
  std::vector<std::string> callsBelow{};
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

class ZPKCommStackErrorsTest : public testing::TestWithParam<Row> {
 protected:
  ZPKCommStackErrorsTest() {
    made.base->setOpened(GetParam().state == State::kOpen);
    if (GetParam().state == State::kWithoutChain) made.stack = ZPKCommStack::init();
    if (*GetParam().response != '\0') made.base->addRead(GetParam().response);
    if (GetParam().swap != nullptr) made->setEcidSwapInformation(GetParam().swap);
    chain = made->commChannel();
  }

  void expectUnchangedState() const {
    EXPECT_EQ(made->commChannel(), chain);
    EXPECT_EQ(made->isOpen(), GetParam().state == State::kOpen ? 1 : 0);
    EXPECT_EQ(bytesOf(made->aggregator()->data2Find()), "> ");
    EXPECT_EQ(bytesOf(made->aggregator()->buffer()), "");
    EXPECT_THAT(made.base->calls(), testing::ElementsAreArray(GetParam().callsBelow));
  }

  LogCapture log;
  ScriptedStack made;
  ZPKDataChannelPtr chain;
};

TEST_P(ZPKCommStackErrorsTest, FillsTheSlotAndLogsOnce) {
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(GetParam().fails(made, &error));
  expectFailure(error, log,
                commStackFailure(GetParam().code, GetParam().description, GetParam().operation));
  expectUnchangedState();
}

TEST_P(ZPKCommStackErrorsTest, FailsAndLogsTheSameWithoutASlot) {
  EXPECT_TRUE(GetParam().fails(made, nullptr));
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{0, GetParam().description}));
  expectUnchangedState();
}

TEST_P(ZPKCommStackErrorsTest, FailsTheSameWayTwiceInARow) {
  ZPKErrorPtr error;
  ASSERT_TRUE(GetParam().fails(made, &error));
  const ZPKErrorPtr first = error;
  log.clear();
  if (*GetParam().response != '\0') made.base->addRead(GetParam().response);
  ASSERT_TRUE(GetParam().fails(made, &error));
  expectFailure(error, log,
                commStackFailure(GetParam().code, GetParam().description, GetParam().operation));
  EXPECT_NE(error, first);
  EXPECT_EQ(error->location(), first->location());
}

bool openFails(const ScriptedStack& made, ZPKErrorPtr* error) {
  return !made->openWithTimeout(1, error);
}
bool createFails(const ScriptedStack& made, ZPKErrorPtr* error) {
  return !made->createStackWithBaseChannel(ScriptedChannel::make(), error);
}
bool createFromURLFails(const ScriptedStack& made, ZPKErrorPtr* error) {
  return !made->createStackWithURL("tcp://127.0.0.1:1", error);
}
bool enableFails(const ScriptedStack& made, ZPKErrorPtr* error) {
  return !made->enableECIDSwapDetectionWithECID(1, error);
}
bool writeDataFails(const ScriptedStack& made, ZPKErrorPtr* error) {
  return !made->writeData(dataOf("x"), error);
}
bool writeStringFails(const ScriptedStack& made, ZPKErrorPtr* error) {
  return !made->writeString("x", error);
}
bool readDataFails(const ScriptedStack& made, ZPKErrorPtr* error) {
  return made->readDataWithTimeout(0, nullptr, error) == nullptr;
}
bool readDataToDelimiterFails(const ScriptedStack& made, ZPKErrorPtr* error) {
  return made->readDataWithTimeout(0, dataOf("#"), error) == nullptr;
}
bool readStringFails(const ScriptedStack& made, ZPKErrorPtr* error) {
  return !made->readStringWithTimeout(0, std::nullopt, error).has_value();
}
bool sendDataFails(const ScriptedStack& made, ZPKErrorPtr* error) {
  return made->sendCommandData(dataOf("ask"), 0, error) == nullptr;
}
bool sendStringFails(const ScriptedStack& made, ZPKErrorPtr* error) {
  return !made->sendCommandString("ask", 0, error).has_value();
}
bool sendWithEchoRemovalFails(const ScriptedStack& made, ZPKErrorPtr* error) {
  return !made->sendCommandStringWithEchoRemoval("ask", 0, error).has_value();
}
bool sendWithRegexFails(const ScriptedStack& made, ZPKErrorPtr* error) {
  const ZPKRegexPtr regex = ZPKRegex::initWithPattern("v(\\d+)");
  return !made->sendCommandStringWithEchoRemoval("ask", regex, 0, error).has_value();
}

constexpr const char* k301 =
    "UART port stack not created, please call \"createStackWithURL\" before calling open";
constexpr const char* k302 =
    "Cannot enable ecid swap detection while uart stack is already created";
constexpr const char* k303 =
    "UART port cannot already be open, please call \"close\" before calling open again";
constexpr const char* k304 =
    "UART port not open, please call \"open\" before calling functions that talk over UART";
constexpr const char* k305Read = "Timed out trying to read after 0 sec";
constexpr const char* k305Send = "Timed out waiting for response for command 'ask' after 0 sec";
constexpr const char* k306 =
    "Response returned cannot be converted to string using ZSUTF8StringEncoding";
constexpr const char* k308 = "Unable to parse response\nregex:v(\\d+)\nresponse:no number> \n";
constexpr const char* k309 = "Expected ECID: [1] Read ECID: [2] 100%@%s%n%d%%";

constexpr const char* kWrite = "writeData:error:";
constexpr const char* kRead = "readDataWithTimeout:delimiter:error:";
constexpr const char* kSend = "sendCommandData:timeout:error:";
constexpr const char* kReadString = "readStringWithTimeout:delimiter:error:";
constexpr const char* kSendString = "sendCommandString:timeout:error:";
constexpr const char* kSendRegex = "sendCommandStringWithEchoRemoval:regex:timeout:error:";

const std::vector<Row> kRows = {
    {"OpenWithoutAChain", 301, k301, "openWithTimeout:error:", State::kWithoutChain, openFails},
    {"EnableOnAClosedChain", 302, k302, "enableECIDSwapDetectionWithECID:error:", State::kClosed,
     enableFails},
    {"EnableOnAnOpenChain", 302, k302, "enableECIDSwapDetectionWithECID:error:", State::kOpen,
     enableFails},
    {"CreateOnAnOpenChain", 303, k303, "createStackWithBaseChannel:error:", State::kOpen,
     createFails},
    {"CreateFromAURLOnAnOpenChain", 303, k303, "createStackWithBaseChannel:error:", State::kOpen,
     createFromURLFails},
    {"OpenOnAnOpenChain", 303, k303, "openWithTimeout:error:", State::kOpen, openFails},

    {"WriteDataWithoutAChain", 304, k304, kWrite, State::kWithoutChain, writeDataFails},
    {"WriteDataOnAClosedChain", 304, k304, kWrite, State::kClosed, writeDataFails},
    {"WriteStringOnAClosedChain", 304, k304, kWrite, State::kClosed, writeStringFails},
    {"ReadDataWithoutAChain", 304, k304, kRead, State::kWithoutChain, readDataFails},
    {"ReadDataOnAClosedChain", 304, k304, kRead, State::kClosed, readDataFails},
    {"ReadDataToADelimiterOnAClosedChain", 304, k304, kRead, State::kClosed,
     readDataToDelimiterFails},
    {"ReadStringOnAClosedChain", 304, k304, kRead, State::kClosed, readStringFails},
    {"SendDataWithoutAChain", 304, k304, kSend, State::kWithoutChain, sendDataFails},
    {"SendDataOnAClosedChain", 304, k304, kSend, State::kClosed, sendDataFails},
    {"SendStringOnAClosedChain", 304, k304, kSend, State::kClosed, sendStringFails},
    {"SendWithEchoRemovalOnAClosedChain", 304, k304, kSend, State::kClosed,
     sendWithEchoRemovalFails},
    {"SendWithRegexOnAClosedChain", 304, k304, kSend, State::kClosed, sendWithRegexFails},
    {"NotOpenIsToldBeforeASwap", 304, k304, kRead, State::kClosed, readDataFails, "", k309},

    {"ReadDataThatTimesOut",
     305,
     k305Read,
     kRead,
     State::kOpen,
     readDataFails,
     "",
     nullptr,
     {"read"}},
    {"ReadDataToADelimiterThatTimesOut",
     305,
     k305Read,
     kRead,
     State::kOpen,
     readDataToDelimiterFails,
     "",
     nullptr,
     {"read"}},
    {"ReadStringThatTimesOut",
     305,
     k305Read,
     kRead,
     State::kOpen,
     readStringFails,
     "",
     nullptr,
     {"read"}},
    {"SendDataThatTimesOut",
     305,
     k305Send,
     kSend,
     State::kOpen,
     sendDataFails,
     "",
     nullptr,
     {"write", "read"}},
    {"SendStringThatTimesOut",
     305,
     k305Send,
     kSend,
     State::kOpen,
     sendStringFails,
     "",
     nullptr,
     {"write", "read"}},
    {"SendWithEchoRemovalThatTimesOut",
     305,
     k305Send,
     kSend,
     State::kOpen,
     sendWithEchoRemovalFails,
     "",
     nullptr,
     {"write", "read"}},
    {"SendWithRegexThatTimesOut",
     305,
     k305Send,
     kSend,
     State::kOpen,
     sendWithRegexFails,
     "",
     nullptr,
     {"write", "read"}},

    {"ReadStringOfOtherBytes",
     306,
     k306,
     kReadString,
     State::kOpen,
     readStringFails,
     "\xFF> ",
     nullptr,
     {"read"}},
    {"SendStringWithOtherBytes",
     306,
     k306,
     kSendString,
     State::kOpen,
     sendStringFails,
     "\xFF> ",
     nullptr,
     {"write", "read"}},
    {"SendWithEchoRemovalWithOtherBytes",
     306,
     k306,
     kSendString,
     State::kOpen,
     sendWithEchoRemovalFails,
     "\xFF> ",
     nullptr,
     {"write", "read"}},
    {"SendWithRegexWithOtherBytes",
     306,
     k306,
     kSendString,
     State::kOpen,
     sendWithRegexFails,
     "v1\xFF> ",
     nullptr,
     {"write", "read"}},

    {"SendWithARegexThatDoesNotMatch",
     308,
     k308,
     kSendRegex,
     State::kOpen,
     sendWithRegexFails,
     "no number> ",
     nullptr,
     {"write", "read"}},

    {"ReadDataAfterASwap", 309, k309, kRead, State::kOpen, readDataFails, "data> ", k309, {"read"}},
    {"ReadDataAfterASwapThatTimesOut",
     309,
     k309,
     kRead,
     State::kOpen,
     readDataFails,
     "",
     k309,
     {"read"}},
    {"ReadStringAfterASwap",
     309,
     k309,
     kRead,
     State::kOpen,
     readStringFails,
     "\xFF> ",
     k309,
     {"read"}},
    {"SendDataAfterASwap",
     309,
     k309,
     kSend,
     State::kOpen,
     sendDataFails,
     "data> ",
     k309,
     {"write", "read"}},
    {"SendDataAfterASwapThatTimesOut",
     309,
     k309,
     kSend,
     State::kOpen,
     sendDataFails,
     "",
     k309,
     {"write", "read"}},
    {"SendStringAfterASwap",
     309,
     k309,
     kSend,
     State::kOpen,
     sendStringFails,
     "\xFF> ",
     k309,
     {"write", "read"}},
    {"SendWithEchoRemovalAfterASwap",
     309,
     k309,
     kSend,
     State::kOpen,
     sendWithEchoRemovalFails,
     "data> ",
     k309,
     {"write", "read"}},
    {"SendWithRegexAfterASwap",
     309,
     k309,
     kSend,
     State::kOpen,
     sendWithRegexFails,
     "v1> ",
     k309,
     {"write", "read"}},
    {"AnEmptySwapTextIsASwapToo",
     309,
     "",
     kRead,
     State::kOpen,
     readDataFails,
     "data> ",
     "",
     {"read"}},
};

INSTANTIATE_TEST_SUITE_P(, ZPKCommStackErrorsTest, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
