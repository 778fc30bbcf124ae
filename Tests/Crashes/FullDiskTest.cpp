// Logs on a disk that fills up, and is emptied again.
#include <ZephalConsole/Console.h>
#include <ZephalIO/ZephalIO.h>
#include <ZephalSimulator/SimulatedDevice.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "Crashes/Aside.h"
#include "Crashes/LibraryLines.h"
#include "Crashes/Recording.h"
#include "Crashes/SmallDisk.h"
#include "Crashes/Traffic.h"
#include "RealPrograms/Support/RealProgram.h"
#include "Support/Files.h"
#include "Support/LogFile.h"
#include "Support/TemporaryFolder.h"

namespace {

using namespace support;
using namespace zephal;
using testing::ElementsAre;
using testing::IsEmpty;

// A console that asks a simulated device, with its logs on the disk.
class Conversation {
 public:
  explicit Conversation(const std::string& folder)
      : _log(folder + "/log"),
        _rawLog(folder + "/raw"),
        _device(DeviceKind::kUnix, {.prompt = kPrompt,
                                    .respond =
                                        [](const std::string& command) {
                                          return consoleAnswer(std::stoul(command.substr(1))) +
                                                 "\n";
                                        }}),
        _dut(_device.url(), {.prompt = kPrompt, .log = _log, .rawLog = _rawLog}) {}

  void ask(size_t first, size_t count) {
    for (size_t number = first; number < first + count; ++number) {
      EXPECT_EQ(_dut.ask("#" + std::to_string(number) + " command"), consoleAnswer(number) + "\n");
    }
    EXPECT_TRUE(waitUntilOthersSleep());
  }
  void close() { _dut.close(); }

  // The numbers of the answers in the log.
  std::vector<size_t> answers() const {
    const auto bytesOf = [](std::string_view identifier, size_t number) {
      if (number == kPromptNumber) return std::string(kPrompt);
      return identifier == "post-write" ? "#" + std::to_string(number) + " command"
                                        : consoleAnswer(number);
    };
    auto chunks = chunksOfLog(contentsOfFile(_log), bytesOf);
    std::erase_if(chunks, [](const LoggedChunk& chunk) {
      return chunk.number == kPromptNumber || !chunk.writer.starts_with("post--read>");
    });
    return numbersOf(chunks);
  }
  std::string rawText() const { return joinedTextOfLog(_rawLog, "pre---read"); }

 private:
  const std::string _log;
  const std::string _rawLog;
  SimulatedDevice _device;
  Console _dut;
};

class FullDisk : public testing::Test {
 protected:
  const TemporaryFolder _folder;
  const std::string _disk = _folder.pathOf("disk");
};

// All numbers up to `end` are there, but for those from a little after `full` up to `empty`, which
// did not fit. Some of the first may have fitted into the rest of a page.
void expectGap(const std::vector<size_t>& numbers, size_t full, size_t empty, size_t end) {
  ASSERT_GE(numbers.size(), full + end - empty);
  const size_t firstLost = numbers.size() - (end - empty);
  EXPECT_LT(firstLost, empty);
  std::vector<size_t> expected = range(0, firstLost);
  const std::vector<size_t> rest = range(empty, end);
  expected.insert(expected.end(), rest.begin(), rest.end());
  EXPECT_EQ(numbers, expected);
}

TEST_F(FullDisk, StopsTheLogsButNotTheTraffic) {
  runAside([this] {
    const LibraryLines lines;
    SmallDisk disk(_disk);
    std::cout << (disk.isReal() ? "a real disk\n" : "a limit to the size of files\n");
    Recording recording(_disk);
    ASSERT_TRUE(recording.recorder().open() && recording.pass(100));
    disk.fill();
    ASSERT_TRUE(recording.pass(1000));
    disk.empty();
    ASSERT_TRUE(recording.pass(100));
    EXPECT_TRUE(recording.recorder().close());
    for (const std::string& path : {recording.log(), recording.rawLog()}) {
      const auto chunks = recording.chunksOf(path);
      expectGap(numbersOf(chunks), 100, 1100, 1200);
      EXPECT_LE(cutChunksOf(chunks), 1U);
    }
    EXPECT_THAT(lines.all(), IsEmpty());
  });
}

// In the middle of the traffic, so that there is room again in the middle of a write too.
TEST_F(FullDisk, FillsUpAgainAndAgain) {
  runAside([this] {
    constexpr uint32_t kTimes = 10;
    SmallDisk disk(_disk, "size=8m");
    Recording recording(_disk);
    ASSERT_TRUE(recording.recorder().open());
    for (uint32_t i = 0; i < kTimes; ++i) {
      ASSERT_TRUE(recording.pass(50));
      disk.fill();
      recording.start(400);
      EXPECT_TRUE(waitFor([&] { return recording.passed() > 450 * i + 250; }));
      disk.empty();
      ASSERT_TRUE(recording.pass(0));
    }
    ASSERT_TRUE(recording.pass(1) && recording.recorder().close());
    const auto chunks = recording.chunksOf(recording.rawLog());
    const auto numbers = numbersOf(chunks);
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
    for (uint32_t i = 0; i <= kTimes; ++i) {
      EXPECT_THAT(numbers, testing::Contains(450 * i)) << "the first one after the pause";
    }
    EXPECT_LT(numbers.size(), 450 * kTimes);
    EXPECT_LE(cutChunksOf(chunks), 2 * kTimes);
  });
}

TEST_F(FullDisk, StopsTheConsolesLogsButNotItsAnswers) {
  runAside([this] {
    const LibraryLines lines;
    SmallDisk disk(_disk);
    Conversation conversation(_disk);
    conversation.ask(0, 50);
    disk.fill();
    conversation.ask(50, 150);
    disk.empty();
    conversation.ask(200, 50);
    conversation.close();
    expectGap(conversation.answers(), 50, 200, 250);
    EXPECT_TRUE(conversation.rawText().ends_with(consoleAnswer(249) + kPrompt));
    EXPECT_THAT(lines.all(), IsEmpty());
  });
}

TEST_F(FullDisk, WithoutAnInodeRefusesANewLog) {
  runAside([this] {
    const LibraryLines lines;
    SmallDisk disk(_disk, "size=512k,nr_inodes=2");
    if (!disk.isReal()) return;  // only a disk runs out of inodes
    Recording recording(_disk);
    writeFile(_disk + "/other", "");
    EXPECT_FALSE(recording.recorder().open());
    const std::string line = "unable to open file at path [" + recording.log() +
                             "] with error (2): No such file or directory, unable to create file "
                             "at path [" +
                             recording.log() + "]";
    EXPECT_THAT(lines.all(), ElementsAre(line));
    std::filesystem::rename(_disk + "/other", recording.log());
    EXPECT_FALSE(recording.recorder().open());
    EXPECT_EQ(lines.all().size(), 2U) << "for the raw log";
  });
}

TEST_F(FullDisk, ThatIsReadOnlyRefusesALogUntilItIsNot) {
  runAside([this] {
    const LibraryLines lines;
    SmallDisk disk(_disk);
    if (!disk.isReal()) return;  // an ordinary user has no file system to change
    Recording recording(_disk);
    writeFile(recording.rawLog(), "");
    disk.setReadOnly(true);
    EXPECT_FALSE(recording.recorder().open());
    EXPECT_EQ(lines.all().size(), 1U) << "for the log, which does not exist";
    disk.setReadOnly(false);
    writeFile(recording.log(), "");
    disk.setReadOnly(true);
    ZPKErrorPtr error;
    EXPECT_FALSE(recording.recorder().open(&error));
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->domain(), "POSIX");
    EXPECT_EQ(error->code(), EROFS);
    disk.setReadOnly(false);
    EXPECT_TRUE(recording.recorder().open(&error) && recording.pass(10));
    EXPECT_TRUE(recording.recorder().close());
    EXPECT_EQ(numbersOf(recording.chunksOf(recording.log())), range(0, 10));
  });
}

TEST_F(FullDisk, ThatIsUnmountedKeepsTheOpenLogs) {
  runAside([this] {
    SmallDisk disk(_disk);
    if (!disk.isReal()) return;  // a limit cannot be unmounted
    Recording recording(_disk);
    ASSERT_TRUE(recording.recorder().open() && recording.pass(10));
    disk.detach();
    EXPECT_TRUE(recording.pass(10));
    EXPECT_TRUE(recording.recorder().close());
    EXPECT_TRUE(recording.recorder().open() && recording.pass(10));
    EXPECT_TRUE(recording.recorder().close());
    EXPECT_EQ(numbersOf(recording.chunksOf(recording.log())), range(20, 30))
        << "in the folder on which the disk was mounted";
  });
}

}  // namespace
