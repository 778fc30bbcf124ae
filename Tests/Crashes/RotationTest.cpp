// Logs that logrotate(8) rotates under traffic.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "Crashes/LoggedChunks.h"
#include "Crashes/Recording.h"
#include "Crashes/Traffic.h"
#include "Crashes/Victim.h"
#include "RealPrograms/Support/RealProgram.h"
#include "Support/Files.h"
#include "Support/TemporaryFolder.h"

namespace {

using namespace support;

constexpr int kRotations = 5;

class Rotation : public testing::Test {
 protected:
  Rotation() {
    // logrotate distrusts a folder that everybody may write to.
    std::filesystem::create_directory(_logs);
    ::chmod(_logs.c_str(), 0755);
    // No chunk is large, so that rotation finds the recorder between two of them, and in them.
    _assignment.pause = std::chrono::microseconds(100);
  }

  void configure(const std::string& directives) {
    writeFile(_configuration, _logs + "/*.log {\n  rotate 20\n" + directives + "\n}\n");
    ::chmod(_configuration.c_str(), 0644);
  }

  // Rotates the logs once, while the recorder goes on.
  void rotate(Victim& victim) {
    ASSERT_TRUE(victim.waitUntilLogged(victim.progress().logged + 200));
    RealProgram logrotate({{"logrotate", "--force", "--verbose", "--state", _folder.pathOf("state"),
                            _configuration}});
    ASSERT_EQ(logrotate.waitForEnd(), 0) << logrotate.output();
  }

  // The chunks of a log's files, the oldest file first.
  std::vector<std::vector<LoggedChunk>> chunksOfFiles(const std::string& log) const {
    std::vector<std::vector<LoggedChunk>> files;
    for (int i = kRotations; i >= 0; --i) {
      const std::string path = i == 0 ? log : log + "." + std::to_string(i);
      const std::string contents = contentsOfFile(path);
      EXPECT_EQ(contents.find('\0'), std::string::npos) << path;
      files.push_back(chunksOfLog(contents, bytesOf));
    }
    return files;
  }

  std::vector<size_t> numbersOfFiles(const std::string& log) const {
    std::vector<size_t> all;
    for (const auto& chunks : chunksOfFiles(log)) {
      EXPECT_EQ(cutChunksOf(chunks), 0U);
      const std::vector<size_t> numbers = numbersOf(chunks);
      all.insert(all.end(), numbers.begin(), numbers.end());
    }
    return all;
  }

  static std::string bytesOf(std::string_view identifier, size_t number) {
    return recorderTraffic().bytesOf(Pieces(0), identifier, number);
  }

  const TemporaryFolder _folder;
  const std::string _logs = _folder.pathOf("logs");
  const std::string _configuration = _folder.pathOf("configuration");
  Assignment _assignment{.log = _logs + "/cut.log", .rawLog = _logs + "/raw.log"};
};

// Numbers that are missing between two files.
struct Gap {
  size_t first;
  size_t end;
};

// Every file is a stretch without a gap. What was logged between the copy and the truncation is
// missing between two files, and the copy may end within a chunk.
std::vector<Gap> gapsOf(const std::vector<std::vector<LoggedChunk>>& files, size_t step) {
  std::vector<Gap> gaps;
  size_t next = 0;
  for (const std::vector<LoggedChunk>& chunks : files) {
    for (const LoggedChunk& chunk : chunks) {
      EXPECT_TRUE(chunk.isWhole || &chunk == &chunks.back()) << next;
      if (!chunk.isWhole) continue;
      EXPECT_GE(chunk.number, next);
      if (chunk.number > next) {
        EXPECT_EQ(&chunk, &chunks.front()) << next;
        gaps.push_back({next, chunk.number});
      }
      next = chunk.number + step;
    }
  }
  return gaps;
}

void expectShortGaps(const std::vector<Gap>& gaps, const Progress& progress) {
  EXPECT_LE(gaps.size(), static_cast<size_t>(kRotations));
  size_t lost = 0;
  int64_t longest = 0;
  for (const auto& [first, end] : gaps) {
    EXPECT_LE(progress.tickOf[end - 1] - progress.tickOf[first], 1000U);
    lost += end - first;
    longest = std::max(longest, progress.timeOf[end - 1] - progress.timeOf[first]);
  }
  std::cout << "lost " << lost << " of " << progress.logged << " pieces in " << kRotations
            << " rotations, those of " << longest << " us at most\n";
}

TEST_F(Rotation, ByCopyLosesOnlyWhatArrivesBeforeTheTruncation) {
  configure("  copytruncate");
  Victim victim([this](Progress& progress) { recorderTraffic().run(_assignment, progress); });
  ASSERT_TRUE(victim.waitUntilLogged(1));
  for (int i = 0; i < kRotations; ++i) rotate(victim);
  ASSERT_TRUE(victim.waitUntilLogged(victim.progress().logged + 200));
  ASSERT_EQ(victim.end(), 0);
  const auto raw = chunksOfFiles(_assignment.rawLog);
  expectShortGaps(gapsOf(raw, 1), victim.progress());
  gapsOf(chunksOfFiles(_assignment.log), 3);
  ASSERT_FALSE(raw.back().empty());
  EXPECT_EQ(raw.back().back().number, victim.progress().logged - 1);
}

TEST_F(Rotation, ByMovingLosesNothingAndTheOldFileGoesOn) {
  configure("  create");
  Victim victim([this](Progress& progress) { recorderTraffic().run(_assignment, progress); });
  ASSERT_TRUE(victim.waitUntilLogged(1));
  rotate(victim);
  ASSERT_TRUE(victim.waitUntilLogged(victim.progress().logged + 200));
  ASSERT_EQ(victim.end(), 0);
  EXPECT_EQ(contentsOfFile(_assignment.rawLog), "");
  EXPECT_EQ(numbersOfFiles(_assignment.rawLog), range(0, victim.progress().logged));
}

TEST_F(Rotation, WithAReopenAfterwardsLosesNothing) {
  Victim victim([this](Progress& progress) { recordAndReopen(_assignment, progress); });
  ASSERT_TRUE(victim.waitUntilLogged(1));
  configure("  create\n  sharedscripts\n  postrotate\n    kill -HUP " +
            std::to_string(victim.process()) + "\n  endscript");
  for (int i = 0; i < kRotations; ++i) {
    rotate(victim);
    EXPECT_TRUE(waitFor([this] { return !contentsOfFile(_assignment.rawLog).empty(); }));
  }
  ASSERT_EQ(victim.end(), 0);
  EXPECT_EQ(numbersOfFiles(_assignment.rawLog), range(0, victim.progress().logged));
}

}  // namespace
