// Compares the examples on the page about formats with what the library writes.
#include <ZephalIO/ZephalIO.h>
#include <ZephalSimulator/SimulatedDevice.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

namespace {

// The block of a page that follows the comment `mark`, with a line feed after each line.
std::string blockAfter(const std::string& mark) {
  std::ifstream page(FORMATS_PAGE);
  std::string block;
  bool isWanted = false;
  bool isInside = false;
  for (std::string line; std::getline(page, line);) {
    if (line == "```" && isInside) return block;
    if (isInside) block += line + '\n';
    if (line == "```" && isWanted) isInside = true;
    if (line == "<!-- " + mark + " -->") isWanted = true;
  }
  return "no block after " + mark;
}

// The bytes of such a block: pairs of digits, and after three blanks what they mean.
ZPKDataPtr bytesAfter(const std::string& mark) {
  const std::string bare = std::regex_replace(blockAfter(mark), std::regex("   .*| |\n"), "");
  return ZPKDataFromHexString(bare);
}

ZPKDataPtr packetOf(const char* text, int32_t width) {
  const auto chunk = ZPKMutableData::data();
  chunk->append(*ZPKData::dataWithString(text));
  createPacketPrependTransformer(width)->modifyData(chunk.get());
  return chunk;
}

// Times and processes differ from run to run.
std::string withoutTimes(const std::string& log) {
  const std::regex time(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}|\[\d+\])");
  return std::regex_replace(log, time, "#");
}

TEST(FormatsTest, ThePacketsOnThePageAreThoseOfTheLibrary) {
  EXPECT_EQ(ZPKHexStringFromData(packetOf("hello", 4), false),
            ZPKHexStringFromData(bytesAfter("packet 4"), false));
  EXPECT_EQ(ZPKHexStringFromData(packetOf("hello", 1), false),
            ZPKHexStringFromData(bytesAfter("packet 1"), false));
}

TEST(FormatsTest, TheArchiveOnThePageIsThatOfTheLibrary) {
  const auto object = ZPKDictionary::init({{"a", 2}, {"b", 0.5}});
  const std::string mark = "archive " + object->debugDescription();
  EXPECT_EQ(ZPKHexStringFromData(ZPKDataDefaultSerializer::init()->serialize(object), false),
            ZPKHexStringFromData(bytesAfter(mark), false));
}

TEST(FormatsTest, TheLogOnThePageIsThatOfTheLibrary) {
  std::string path = (std::filesystem::temp_directory_path() / "formats-XXXXXX").string();
  ::close(::mkstemp(path.data()));
  const zephal::SimulatedDevice device(zephal::DeviceKind::kUnix,
                                       {.responses = {{"version", "1.0\n"}}});
  const auto line = createBaseChannelWithTransport(device.url());
  const auto logged = createLoggingChannel(line, path, "pre-", true);
  ASSERT_TRUE(logged->openWithTimeout(30.0));
  EXPECT_TRUE(logged->write(ZPKData::dataWithString("version\n")));
  EXPECT_TRUE(device.waitForCommands(1));
  EXPECT_TRUE(device.waitUntilAllIsSent());
  EXPECT_NE(logged->readWithTimeout(30.0), nullptr);
  EXPECT_TRUE(logged->close());

  std::ifstream file(path);
  const std::string log(std::istreambuf_iterator<char>(file), {});
  std::filesystem::remove(path);
  EXPECT_EQ(withoutTimes(log + "\n"), withoutTimes(blockAfter("log")));
}

}  // namespace
