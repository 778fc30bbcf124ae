#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "Data Transformers/ZPKECIDSwapDetectTransformer.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::Pair;

constexpr uint64_t kECID = 0x0000BEEF0BADF00D;
const std::string kOurText = "[0000BEEF:0BADF00D]";
const std::string kOurPrompt = "[0000BEEF:0BADF00D] :-) ";
const std::string kOtherText = "[00001234:89ABCDEF]";
const std::string kOtherPrompt = "[00001234:89ABCDEF] :-) ";

using Swaps = std::vector<std::pair<std::string, std::string>>;

// A reference implementation of modifyData, step by step.
std::string plainModifyData(const std::optional<std::string>& expected,
                            const std::string& delimiter, const ZPKRegex& regex, bool drops,
                            const std::string& chunk, Swaps& swaps) {
  if (expected.value_or("").empty()) return chunk;
  const size_t p = delimiter.empty() ? std::string::npos : chunk.find(delimiter);
  if (p == std::string::npos) return chunk;
  if (p < 18) return chunk;
  const std::optional<std::string> text = dataOf(chunk.substr(p - 18, 19))->string();
  if (!text.has_value()) return chunk;
  if (regex.countMatches(*text) == 0) return chunk;
  if (*text == *expected) return chunk;
  swaps.emplace_back(*expected, *text);
  return drops ? "" : chunk;
}

class ZPKECIDSwapDetectTransformerTest : public testing::Test {
 protected:
  ZPKECIDSwapDetectTransformerTest()
      : detector(ZPKECIDSwapDetectTransformer::initWithSwapAction(
            [this](const std::string& expected, const std::string& read) {
              swaps.emplace_back(expected, read);
            })) {}

  Swaps swaps;
  const ZPKECIDSwapDetectTransformerPtr detector;
};

TEST_F(ZPKECIDSwapDetectTransformerTest, AtFirstDetectionIsOff) {
  EXPECT_EQ(detector->expectedECIDString(), "");
  EXPECT_EQ(detector->expectedECID(), ZPKNumber(0));
  EXPECT_EQ(passed(*detector, "ok\n" + kOtherPrompt), "ok\n" + kOtherPrompt);
  EXPECT_THAT(swaps, ElementsAre());
}

TEST_F(ZPKECIDSwapDetectTransformerTest, AtFirstEverythingElseIsReady) {
  EXPECT_TRUE(detector->dropResponseWhenECIDSwapDetected());
  EXPECT_EQ(detector->smileyDelimiter()->view(), "\x5D\x20\x3A\x2D\x29\x20");
  EXPECT_EQ(detector->regex()->pattern(), "\\[[0-9A-Fa-f]{8}:[0-9A-Fa-f]{8}\\]");
  detector->swapAction()("expected", "read");
  EXPECT_THAT(swaps, ElementsAre(Pair("expected", "read")));
}

TEST_F(ZPKECIDSwapDetectTransformerTest, TheExpectedDeviceIsLeftAlone) {
  detector->setExpectedECID(kECID);
  EXPECT_EQ(passed(*detector, "1.0\n" + kOurPrompt), "1.0\n" + kOurPrompt);
  EXPECT_THAT(swaps, ElementsAre());
}

TEST_F(ZPKECIDSwapDetectTransformerTest, ADifferentDeviceEmptiesTheChunkAndCallsBack) {
  detector->setExpectedECID(kECID);
  EXPECT_EQ(passed(*detector, "1.0\n" + kOtherPrompt), "");
  EXPECT_THAT(swaps, ElementsAre(Pair(kOurText, kOtherText)));
}

TEST_F(ZPKECIDSwapDetectTransformerTest, WithTheFlagOffASwapOnlyCallsBack) {
  detector->setExpectedECID(kECID);
  detector->setDropResponseWhenECIDSwapDetected(false);
  EXPECT_EQ(passed(*detector, "1.0\n" + kOtherPrompt), "1.0\n" + kOtherPrompt);
  EXPECT_THAT(swaps, ElementsAre(Pair(kOurText, kOtherText)));
}

TEST_F(ZPKECIDSwapDetectTransformerTest, TheChunkIsAlreadyEmptyWhenTheCallbackRuns) {
  const ZPKMutableDataPtr chunk = chunkOf(kOtherPrompt);
  size_t lengthSeen = 1;
  detector->setSwapAction(
      [&](const std::string&, const std::string&) { lengthSeen = chunk->length(); });
  detector->setExpectedECID(kECID);
  detector->modifyData(chunk.get());
  EXPECT_EQ(lengthSeen, 0U);
}

TEST_F(ZPKECIDSwapDetectTransformerTest, EachChunkFromADifferentDeviceCallsBackAgain) {
  detector->setExpectedECID(kECID);
  passed(*detector, kOtherPrompt);
  passed(*detector, kOurPrompt);
  passed(*detector, kOtherPrompt);
  EXPECT_EQ(swaps.size(), 2U);
}

TEST_F(ZPKECIDSwapDetectTransformerTest, ExpectingZeroDetectsAlthoughItLooksLikeOff) {
  detector->setExpectedECID(0);
  EXPECT_EQ(detector->expectedECIDString(), "[00000000:00000000]");
  EXPECT_EQ(detector->expectedECID(), ZPKNumber(0));
  EXPECT_EQ(passed(*detector, kOtherPrompt), "");
  EXPECT_EQ(swaps.size(), 1U);
}

TEST_F(ZPKECIDSwapDetectTransformerTest, TheHighHalfComesFirst) {
  detector->setExpectedECID(uint64_t{0xABCDEF12} << 32);
  EXPECT_EQ(detector->expectedECIDString(), "[ABCDEF12:00000000]");
  EXPECT_EQ(detector->expectedECID(), ZPKNumber(uint64_t{0xABCDEF12} << 32));
  detector->setExpectedECID(0xABCDEF12);
  EXPECT_EQ(detector->expectedECIDString(), "[00000000:ABCDEF12]");
  EXPECT_EQ(detector->expectedECID(), ZPKNumber(0xABCDEF12));
}

TEST_F(ZPKECIDSwapDetectTransformerTest, ANumberIsReadAsUnsigned) {
  detector->setExpectedECID(UINT64_MAX);
  EXPECT_EQ(detector->expectedECIDString(), "[FFFFFFFF:FFFFFFFF]");
  EXPECT_EQ(detector->expectedECID(), ZPKNumber(UINT64_MAX));
  detector->setExpectedECID(-2);
  EXPECT_EQ(detector->expectedECIDString(), "[FFFFFFFF:FFFFFFFE]");
}

TEST_F(ZPKECIDSwapDetectTransformerTest, NullTurnsDetectionOff) {
  detector->setExpectedECID(kECID);
  detector->setExpectedECID(std::nullopt);
  EXPECT_EQ(detector->expectedECIDString(), std::nullopt);
  EXPECT_EQ(detector->expectedECID(), ZPKNumber(0));
  EXPECT_EQ(passed(*detector, kOtherPrompt), kOtherPrompt);
  EXPECT_THAT(swaps, ElementsAre());
}

TEST_F(ZPKECIDSwapDetectTransformerTest, AnEmptyTextTurnsDetectionOff) {
  detector->setExpectedECIDString("");
  EXPECT_EQ(passed(*detector, kOtherPrompt), kOtherPrompt);
  EXPECT_THAT(swaps, ElementsAre());
}

TEST_F(ZPKECIDSwapDetectTransformerTest, TheExpectedECIDIsReadFromAnyText) {
  const std::pair<const char*, uint64_t> cases[] = {{"[0000beef:0badf00d]", 0x0000BEEF0BADF00D},
                                                    {"[[12:34]", 0x1234},
                                                    {"12 34", 0x12},
                                                    {"hello", 0},
                                                    {"[]", 0},
                                                    {":", 0},
                                                    {"[-1]", 0},
                                                    {"0x12", 0},
                                                    {"[FFFFFFFF:FFFFFFFF0]", UINT64_MAX}};
  for (const auto& [text, ecid] : cases) {
    detector->setExpectedECIDString(text);
    EXPECT_EQ(detector->expectedECID(), ZPKNumber(ecid)) << text;
  }
}

// [......17 bytes.......] :-) : no room for an ECID, even if it looks like a truncated one.
TEST_F(ZPKECIDSwapDetectTransformerTest, ADelimiterAtOffset17DoesNothing) {
  detector->setExpectedECID(kECID);
  const std::string cutShort = kOtherPrompt.substr(1);
  ASSERT_EQ(cutShort.find("] :-) "), 17U);
  EXPECT_EQ(passed(*detector, cutShort), cutShort);
  EXPECT_THAT(swaps, ElementsAre());
}

TEST_F(ZPKECIDSwapDetectTransformerTest, ADelimiterAtOffset18LeavesRoomForAnECID) {
  detector->setExpectedECID(kECID);
  ASSERT_EQ(kOtherPrompt.find("] :-) "), 18U);
  EXPECT_EQ(passed(*detector, kOtherPrompt), "");
  EXPECT_THAT(swaps, ElementsAre(Pair(kOurText, kOtherText)));
}

TEST_F(ZPKECIDSwapDetectTransformerTest, ADelimiterAfterSomethingOtherThanAnECIDDoesNothing) {
  detector->setExpectedECID(kECID);
  for (const std::string response : {"0000000000[1234:5678] :-) ", "[0000123G:89ABCDEF] :-) ",
                                     " 00001234:89ABCDEF] :-) ", "[00001234 89ABCDEF] :-) ",
                                     "[\xC3\xA9"
                                     "001234:89ABCDEF] :-) "}) {
    EXPECT_EQ(passed(*detector, response), response);
  }
  EXPECT_THAT(swaps, ElementsAre());
}

TEST_F(ZPKECIDSwapDetectTransformerTest, InvalidUTF8BeforeTheDelimiterDoesNothing) {
  detector->setExpectedECID(kECID);
  detector->setRegex(ZPKRegex::initWithPattern("\\]"));
  const std::string response =
      "[\xFF"
      "0001234:89ABCDEF] :-) ";
  EXPECT_EQ(passed(*detector, response), response);
  EXPECT_THAT(swaps, ElementsAre());
}

TEST_F(ZPKECIDSwapDetectTransformerTest, TheExpectedECIDInLowerCaseIsASwap) {
  detector->setExpectedECID(kECID);
  EXPECT_EQ(passed(*detector, "[0000beef:0badf00d] :-) "), "");
  EXPECT_THAT(swaps, ElementsAre(Pair(kOurText, "[0000beef:0badf00d]")));
}

TEST_F(ZPKECIDSwapDetectTransformerTest, AnExpectedTextInLowerCaseMatchesLowerCase) {
  detector->setExpectedECIDString("[0000beef:0badf00d]");
  EXPECT_EQ(passed(*detector, "[0000beef:0badf00d] :-) "), "[0000beef:0badf00d] :-) ");
  EXPECT_EQ(passed(*detector, kOurPrompt), "");
  EXPECT_EQ(swaps.size(), 1U);
}

TEST_F(ZPKECIDSwapDetectTransformerTest, OnlyTheFirstDelimiterOfAChunkCounts) {
  detector->setExpectedECID(kECID);
  const std::string early = "] :-) " + kOtherPrompt;
  EXPECT_EQ(passed(*detector, early), early);
  const std::string noECID = "there is no ECID here] :-) " + kOtherPrompt;
  EXPECT_EQ(passed(*detector, noECID), noECID);
  const std::string oursFirst = kOurPrompt + kOtherPrompt;
  EXPECT_EQ(passed(*detector, oursFirst), oursFirst);
  EXPECT_THAT(swaps, ElementsAre());
  EXPECT_EQ(passed(*detector, kOtherPrompt + kOurPrompt + kOtherPrompt), "");
  EXPECT_EQ(swaps.size(), 1U);
}

// [00001234:89ABCDEF] :-) in two chunks, split anywhere.
TEST_F(ZPKECIDSwapDetectTransformerTest, APromptSplitAcrossTwoChunksIsNotSeen) {
  detector->setExpectedECID(kECID);
  for (size_t cut = 1; cut < kOtherPrompt.size(); ++cut) {
    const Chunks chunks{kOtherPrompt.substr(0, cut), kOtherPrompt.substr(cut)};
    EXPECT_EQ(passedInTurn(*detector, chunks), chunks);
  }
  EXPECT_THAT(swaps, ElementsAre());
}

TEST_F(ZPKECIDSwapDetectTransformerTest, NullAndEmptyChunksAndChunksWithoutAPromptPass) {
  detector->setExpectedECID(kECID);
  detector->modifyData(nullptr);
  EXPECT_EQ(passed(*detector, ""), "");
  EXPECT_EQ(passed(*detector, "no prompt"), "no prompt");
  EXPECT_EQ(passed(*detector, kOtherText), kOtherText);
  EXPECT_THAT(swaps, ElementsAre());
}

TEST_F(ZPKECIDSwapDetectTransformerTest, ResetLeavesDetectionAndTheSlotAlone) {
  detector->setExpectedECID(kECID);
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(detector->reset(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(detector->expectedECIDString(), kOurText);
  EXPECT_EQ(passed(*detector, kOtherPrompt), "");
}

TEST_F(ZPKECIDSwapDetectTransformerTest, TheDelimiterCanBeReplacedAndTheOffsetsStay) {
  detector->setExpectedECID(kECID);
  const ZPKDataPtr delimiter = dataOf("]$");
  detector->setSmileyDelimiter(delimiter);
  EXPECT_EQ(detector->smileyDelimiter(), delimiter);
  EXPECT_EQ(passed(*detector, kOtherPrompt), kOtherPrompt);
  EXPECT_EQ(passed(*detector, kOtherText + "$ "), "");
  // 19 bytes that end with the delimiter's first one, whatever it is.
  detector->setSmileyDelimiter(dataOf(" :-) "));
  EXPECT_EQ(passed(*detector, kOtherPrompt), kOtherPrompt);
  EXPECT_EQ(swaps.size(), 1U);
}

TEST_F(ZPKECIDSwapDetectTransformerTest, ANullOrEmptyDelimiterIsNeverFound) {
  detector->setExpectedECID(kECID);
  for (const ZPKDataPtr& none : {ZPKDataPtr(), ZPKData::data()}) {
    detector->setSmileyDelimiter(none);
    EXPECT_EQ(passed(*detector, kOtherPrompt), kOtherPrompt);
  }
  EXPECT_THAT(swaps, ElementsAre());
}

TEST_F(ZPKECIDSwapDetectTransformerTest, TheExpressionCanBeReplaced) {
  detector->setExpectedECID(kECID);
  const ZPKRegexPtr regex = ZPKRegex::initWithPattern("FEED");
  detector->setRegex(regex);
  EXPECT_EQ(detector->regex(), regex);
  EXPECT_EQ(passed(*detector, kOtherPrompt), kOtherPrompt);
  EXPECT_EQ(passed(*detector, "[0000FEED:00000000] :-) "), "");
  detector->setRegex(nullptr);
  EXPECT_EQ(passed(*detector, kOtherPrompt), kOtherPrompt);
  EXPECT_EQ(swaps.size(), 1U);
}

TEST_F(ZPKECIDSwapDetectTransformerTest, TheCallbackIsTheTransformersOwnCopy) {
  int calls = 0;
  ZPKECIDSwapDetectTransformer::SwapAction action = [&calls](const std::string&,
                                                             const std::string&) { ++calls; };
  detector->setSwapAction(action);
  action = nullptr;
  detector->setExpectedECID(kECID);
  passed(*detector, kOtherPrompt);
  EXPECT_EQ(calls, 1);
  EXPECT_THAT(swaps, ElementsAre());
}

// The callback makes the new device the expected one; the call under way still reports the old one.
TEST_F(ZPKECIDSwapDetectTransformerTest, OneCallUsesTheSameExpectedTextThroughout) {
  std::string reported;
  detector->setSwapAction([&](const std::string& expected, const std::string& read) {
    detector->setExpectedECIDString(read);
    passed(*detector, "");
    reported = expected;
  });
  detector->setExpectedECID(kECID);
  EXPECT_EQ(passed(*detector, kOtherPrompt), "");
  EXPECT_EQ(reported, kOurText);
  EXPECT_EQ(passed(*detector, kOtherPrompt), kOtherPrompt);
}

TEST_F(ZPKECIDSwapDetectTransformerTest, DirectivesInDeviceDataAreNeitherFormattedNorLogged) {
  LogCapture log;
  detector->setExpectedECID(kECID);
  EXPECT_EQ(passed(*detector, "%s%n%@%d" + kOurPrompt), "%s%n%@%d" + kOurPrompt);
  detector->setRegex(ZPKRegex::initWithPattern("%"));
  EXPECT_EQ(passed(*detector, "[%s%n%@%d%s%n%@%d%] :-) "), "");
  EXPECT_THAT(swaps, ElementsAre(Pair(kOurText, "[%s%n%@%d%s%n%@%d%]")));
  EXPECT_THAT(log.lines(), ElementsAre());
}

// Chunks built from parts of prompts, good and bad, in any order.
TEST_F(ZPKECIDSwapDetectTransformerTest, EveryCallMatchesTheReferenceImplementation) {
  const std::string parts[] = {kOurPrompt, kOtherPrompt, "[0000beef:0badf00d] :-) ",
                               "] :-) ",   kOurText,     "[0000123G:89ABCDEF] :-) ",
                               " :-) ",    "[",          "]",
                               "x",        "0123456789", "\xFF",
                               "\xC3\xA9"};
  const std::optional<std::string> expectedTexts[] = {
      std::nullopt, "", kOurText, kOtherText, "[0000beef:0badf00d]", "x"};
  const std::string delimiters[] = {"] :-) ", "]", " :-) ", ""};
  const ZPKRegexPtr expressions[] = {detector->regex(), ZPKRegex::initWithPattern("[0-9]"),
                                     ZPKRegex::initWithPattern("")};
  std::mt19937 random(35);
  Swaps plainSwaps;
  for (int call = 0; call < 20'000; ++call) {
    std::string chunk;
    for (size_t count = random() % 5; count > 0; --count) chunk += parts[random() % 13];
    const std::optional<std::string>& expected = expectedTexts[random() % 6];
    const std::string& delimiter = delimiters[random() % 3 == 0 ? random() % 4 : 0];
    const ZPKRegexPtr& regex = expressions[random() % 3 == 0 ? random() % 3 : 0];
    const bool drops = random() % 2 == 0;
    detector->setExpectedECIDString(expected);
    detector->setSmileyDelimiter(dataOf(delimiter));
    detector->setRegex(regex);
    detector->setDropResponseWhenECIDSwapDetected(drops);
    ASSERT_EQ(passed(*detector, chunk),
              plainModifyData(expected, delimiter, *regex, drops, chunk, plainSwaps))
        << "chunk " << chunk << " delimiter " << delimiter << " expected " << expected.value_or("");
    ASSERT_EQ(swaps, plainSwaps);
    swaps.clear();
    plainSwaps.clear();
  }
}

TEST_F(ZPKECIDSwapDetectTransformerTest, AllAccessorsCanBeUsedOnAnotherThreadDuringCalls) {
  std::atomic<bool> stops{false};
  std::atomic<int> rounds{0};
  std::thread other([&] {
    for (; !stops; ++rounds) {
      detector->setExpectedECID(kECID);
      detector->setDropResponseWhenECIDSwapDetected(!detector->dropResponseWhenECIDSwapDetected());
      detector->setSmileyDelimiter(detector->smileyDelimiter());
      detector->setRegex(detector->regex());
      detector->setSwapAction(detector->swapAction());
      EXPECT_EQ(detector->expectedECID(), ZPKNumber(kECID));
      detector->setExpectedECID(std::nullopt);
    }
  });
  for (int call = 0; call < 2000 || rounds < 100; ++call) {
    EXPECT_THAT(passed(*detector, kOtherPrompt), testing::AnyOf("", kOtherPrompt));
    EXPECT_EQ(passed(*detector, kOurPrompt), kOurPrompt);
  }
  stops = true;
  other.join();
  for (const auto& swap : swaps) EXPECT_THAT(swap, Pair(kOurText, kOtherText));
}

}  // namespace
