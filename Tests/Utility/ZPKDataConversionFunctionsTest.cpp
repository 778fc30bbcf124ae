#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Utility/ZPKData.h"
#include "Utility/ZPKDataConversionFunctions.h"
#include "Utility/ZPKMutableData.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr size_t kMiB = 1 << 20;

// The bytes that a good text stands for.
std::string bytesFrom(std::string_view hex) {
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  const ZPKDataPtr data = ZPKDataFromHexStringWithError(hex, &error);
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_NE(data, nullptr) << hex;
  return data == nullptr ? std::string("null") : std::string(data->view());
}

// Expects `hex` to fail, with `shown` in its place in the message.
void expectBadText(std::optional<std::string_view> hex, const std::string& shown) {
  const LogCapture log;
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(ZPKDataFromHexStringWithError(hex, &error), nullptr);
  expectFailure(error, log,
                {"zephal-dataconversion", 1,
                 "Invalid characters present in the input hex string [" + shown + "]!",
                 "ZPKDataFromHexStringWithError", "ZPKDataConversionFunctions.cpp"});
}

TEST(ZPKDataFromHexStringWithErrorTest, TheFirstPairIsTheFirstByte) {
  EXPECT_EQ(bytesFrom("616263"), "abc");
  EXPECT_EQ(bytesFrom("00ff80"), std::string("\x00\xff\x80", 3));
}

TEST(ZPKDataFromHexStringWithErrorTest, DigitsOfBothCasesMayBeMixed) {
  EXPECT_EQ(bytesFrom("aBcDeFAf"), "\xab\xcd\xef\xaf");
}

TEST(ZPKDataFromHexStringWithErrorTest, EveryByteIsRead) {
  constexpr std::string_view digits = "0123456789abcdef";
  for (size_t byte = 0; byte < 256; ++byte) {
    const std::string hex = {digits[byte / 16], digits[byte % 16]};
    EXPECT_EQ(bytesFrom(hex), std::string(1, static_cast<char>(byte)));
  }
}

TEST(ZPKDataFromHexStringWithErrorTest, AnOddDigitCountGainsALeadingZero) {
  EXPECT_EQ(bytesFrom("123"), "\x01\x23");
  EXPECT_EQ(bytesFrom("f"), "\x0f");
  EXPECT_EQ(bytesFrom("0xabc"), "\x0a\xbc");
}

TEST(ZPKDataFromHexStringWithErrorTest, ALowerCasePrefixIsRemoved) {
  EXPECT_EQ(bytesFrom("0x6162"), "ab");
}

TEST(ZPKDataFromHexStringWithErrorTest, AnUpperCasePrefixFails) { expectBadText("0X61", "0X61"); }

TEST(ZPKDataFromHexStringWithErrorTest, AfterAPrefixAllFurtherPrefixesAreRemoved) {
  EXPECT_EQ(bytesFrom("0x610x62"), "ab");
  EXPECT_EQ(bytesFrom("0x60x1"), "a");
  EXPECT_EQ(bytesFrom("0x0x0x61"), "a");
}

TEST(ZPKDataFromHexStringWithErrorTest, APrefixInsideATextThatBeginsOtherwiseFails) {
  expectBadText("610x62", "610x62");
}

TEST(ZPKDataFromHexStringWithErrorTest, AnXThatIsNotAPrefixFails) {
  expectBadText("x61", "x61");
  expectBadText("0x6x1", "6x1");
}

TEST(ZPKDataFromHexStringWithErrorTest, APrefixThatARemovalJoinsStays) {
  expectBadText("0x00xx", "0x");
}

TEST(ZPKDataFromHexStringWithErrorTest, EmptyTextOrALonePrefixBecomesEmptyData) {
  EXPECT_EQ(bytesFrom(""), "");
  EXPECT_EQ(bytesFrom("0x"), "");
  EXPECT_EQ(bytesFrom("0x0x"), "");
}

TEST(ZPKDataFromHexStringWithErrorTest, SeparatorsBlanksAndSignsFail) {
  for (const char* hex : {" 61", "61 ", "61 62", "-61", "+61", "61:62", "61,62", "61\n", "g1",
                          "\xC3\xA9", "%@%s%n"}) {
    expectBadText(hex, hex);
  }
  expectBadText(std::string_view("61\0"
                                 "62",
                                 5),
                std::string("61\0"
                            "62",
                            5));
}

TEST(ZPKDataFromHexStringWithErrorTest, TheMessageShowsTheTextWithoutItsPrefixes) {
  expectBadText("0x61 0x62", "61 62");
}

TEST(ZPKDataFromHexStringWithErrorTest, NullFailsAndShowsAsNull) {
  expectBadText(std::nullopt, "(null)");
}

TEST(ZPKDataFromHexStringWithErrorTest, AFailureWithoutASlotIsStillLogged) {
  const LogCapture log;
  EXPECT_EQ(ZPKDataFromHexStringWithError("6g"), nullptr);
  EXPECT_EQ(ZPKDataFromHexStringWithError(std::nullopt, nullptr), nullptr);
  EXPECT_THAT(log.lines(),
              ElementsAre(LogLine{0, "Invalid characters present in the input hex string [6g]!"},
                          LogLine{0,
                                  "Invalid characters present in the input hex string "
                                  "[(null)]!"}));
}

TEST(ZPKDataFromHexStringWithErrorTest, HugeTextsAreReadInLinearTime) {
  std::string prefixes;
  for (size_t i = 0; i < kMiB / 2; ++i) prefixes += "0x";
  EXPECT_EQ(bytesFrom(prefixes), "");
  EXPECT_EQ(bytesFrom(prefixes + "61"), "a");
  EXPECT_EQ(bytesFrom(std::string(2 * kMiB, '6')), std::string(kMiB, 'f'));
  EXPECT_EQ(bytesFrom(std::string(kMiB + 1, '0')).size(), kMiB / 2 + 1);
}

TEST(ZPKDataFromHexStringTest, AGoodTextReturnsItsBytesAndLogsNothing) {
  const LogCapture log;
  EXPECT_EQ(ZPKDataFromHexString("0x616")->view(), "\x06\x16");
  EXPECT_EQ(ZPKDataFromHexString("")->length(), 0U);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(ZPKDataFromHexStringTest, AFailureIsLoggedAgainWithTheCallersText) {
  const LogCapture log;
  EXPECT_EQ(ZPKDataFromHexString("0x6g"), nullptr);
  const std::string message = "Invalid characters present in the input hex string [6g]!";
  EXPECT_THAT(log.lines(),
              ElementsAre(LogLine{0, message},
                          LogLine{0,
                                  "Error converting input hex string [0x6g] to ZSData, error = "
                                  "zephalbench.zephal-dataconversion (1): " +
                                      message}));
}

TEST(ZPKDataFromHexStringTest, NullFailsLikewise) {
  const LogCapture log;
  EXPECT_EQ(ZPKDataFromHexString(std::nullopt), nullptr);
  ASSERT_EQ(log.lines().size(), 2U);
  EXPECT_THAT(
      log.texts()[1],
      testing::StartsWith("Error converting input hex string [(null)] to ZSData, error = "));
}

TEST(ZPKHexStringFromDataTest, BytesAppearAsLowerCaseDigitsWithoutSeparators) {
  EXPECT_EQ(ZPKHexStringFromData(dataOf({"\x00\x0f\xAB\xff", 4}), false), "000fabff");
  EXPECT_EQ(ZPKHexStringFromData(dataOf({"\x00\x0f\xAB\xff", 4}), true), "0x000fabff");
}

TEST(ZPKHexStringFromDataTest, EmptyAndNullDataBecomeAnEmptyString) {
  EXPECT_EQ(ZPKHexStringFromData(ZPKData::data(), false), "");
  EXPECT_EQ(ZPKHexStringFromData(ZPKData::data(), true), "0x");
  EXPECT_EQ(ZPKHexStringFromData(nullptr, false), "");
  EXPECT_EQ(ZPKHexStringFromData(nullptr, true), "0x");
}

TEST(ZPKHexStringFromDataTest, BytesSurviveARoundTripWithOrWithoutThePrefix) {
  std::mt19937 random(9);
  for (size_t length = 0; length < 300; ++length) {
    std::string bytes(length, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    for (const bool withPrefix : {false, true}) {
      ASSERT_EQ(bytesFrom(ZPKHexStringFromData(dataOf(bytes), withPrefix)), bytes);
    }
  }
}

TEST(ZPKHexStringFromDataTest, TextSurvivesARoundTripInLowerCase) {
  EXPECT_EQ(ZPKHexStringFromData(ZPKDataFromHexString("0xABCdef1"), true), "0x0abcdef1");
}

TEST(ZPKDataToStringTest, NullAndEmptyDataBecomeTheEmptyString) {
  EXPECT_EQ(ZPKDataToString(nullptr), "");
  EXPECT_EQ(ZPKDataToString(ZPKData::data()), "");
}

TEST(ZPKDataToStringTest, ValidUTF8IsUnchanged) {
  EXPECT_EQ(ZPKDataToString(dataOf("plain <text>\r\n")), "plain <text>\r\n");
  EXPECT_EQ(ZPKDataToString(dataOf("\xE2\x82\xAC\x1b[0m\x7f")), "\xE2\x82\xAC\x1b[0m\x7f");
}

TEST(ZPKDataToStringTest, ANulInValidTextStaysInTheString) {
  EXPECT_EQ(ZPKDataToString(dataOf({"a\0b", 3})), std::string("a\0b", 3));
}

TEST(ZPKDataToStringTest, ASingleInvalidByteAppearsInBrackets) {
  EXPECT_EQ(ZPKDataToString(dataOf("\xFF")), "<ff>");
}

TEST(ZPKDataToStringTest, ARunOfOtherBytesSharesOnePairOfBrackets) {
  EXPECT_EQ(ZPKDataToString(dataOf("ok\xFF\xFE"
                                   "done")),
            "ok<fffe>done");
  EXPECT_EQ(ZPKDataToString(dataOf("\xFF"
                                   "a\xFE")),
            "<ff>a<fe>");
}

TEST(ZPKDataToStringTest, ARunAtTheEndOrStartIsClosed) {
  EXPECT_EQ(ZPKDataToString(dataOf("ok\xFF")), "ok<ff>");
  EXPECT_EQ(ZPKDataToString(dataOf("\xFFok")), "<ff>ok");
}

TEST(ZPKDataToStringTest, InInvalidTextAValidCharacterAppearsAsBytes) {
  EXPECT_EQ(ZPKDataToString(dataOf("\xC3\xA9 \xFF")), "<c3a9> <ff>");
}

TEST(ZPKDataToStringTest, InInvalidTextPrintableCharactersAndLineEndsArePlain) {
  EXPECT_EQ(ZPKDataToString(dataOf({"\xFF \t\n\r\x1f\x20\x7e\x7f\0", 10})),
            "<ff> <09>\n\r<1f> ~<7f00>");
}

TEST(ZPKDataToStringTest, InInvalidTextEveryByteIsPlainOrNot) {
  for (int code = 0; code < 256; ++code) {
    const auto byte = static_cast<char>(code);
    const bool isPlain = code == 0x0A || code == 0x0D || (code >= 0x20 && code <= 0x7E);
    const std::string hex = ZPKHexStringFromData(dataOf({&byte, 1}), false);
    const std::string expected = isPlain ? "<ff>" + std::string(1, byte) : "<ff" + hex + ">";
    EXPECT_EQ(ZPKDataToString(dataOf(std::string("\xFF") + byte)), expected);
  }
}

TEST(ZPKDataToStringTest, BracketsOfTheTextAreNotEscaped) {
  EXPECT_EQ(ZPKDataToString(dataOf("<ff>\xFF")), "<ff><ff>");
}

TEST(ZPKDataToStringTest, MutableDataIsShownAsItIsNow) {
  const ZPKMutableDataPtr data = dataOf("abc")->mutableCopy();
  data->dropFirst(1);
  EXPECT_EQ(ZPKDataToString(data), "bc");
  EXPECT_EQ(ZPKHexStringFromData(data, false), "6263");
}

TEST(ZPKDataToStringTest, HugeDataAreShownInLinearTime) {
  EXPECT_EQ(ZPKDataToString(dataOf(std::string(kMiB, '\xFF'))).size(), 2 * kMiB + 2);
  std::string mixed;
  for (size_t i = 0; i < kMiB / 2; ++i) mixed += "a\xFF";
  EXPECT_EQ(ZPKDataToString(dataOf(mixed)).size(), kMiB / 2 * 5);
}

}  // namespace
