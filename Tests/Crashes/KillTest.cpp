// What is in the logs of a program that was killed at a random moment.
//
// ZEPHALIO_KILLS is how often, for all tests together, and ZEPHALIO_SEED repeats the pieces of an
// earlier run; the moments differ all the same.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <thread>
#include <vector>

#include "Crashes/LoggedChunks.h"
#include "Crashes/Traffic.h"
#include "Crashes/Victim.h"
#include "RealPrograms/Support/RealProgram.h"
#include "Support/Files.h"
#include "Support/LogFile.h"
#include "Support/TemporaryFolder.h"

namespace {

using namespace support;
using std::chrono::microseconds;

// A victim that the system lets run for this long has written what it logged before.
constexpr uint32_t kWindowInTicks = 1000;
constexpr int kLivesOfAFile = 5;
constexpr size_t kSharers = 3;

uint32_t numberFrom(const char* variable, uint32_t otherwise) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? otherwise : static_cast<uint32_t>(std::stoul(text));
}

int killsOfATest() {
  const uint32_t share = numberFrom("ZEPHALIO_KILLS", 60) / 6;
  return static_cast<int>(std::max(share, 1U));
}

// What the kills of a test came to.
struct Toll {
  int kills = 0;
  int cutChunks = 0;
  size_t mostLost = 0;
  std::chrono::microseconds oldestLost{0};
};

std::ostream& operator<<(std::ostream& out, const Toll& toll) {
  return out << toll.kills << " kills, " << toll.cutChunks << " cut chunks, at most "
             << toll.mostLost << " pieces lost, the oldest " << toll.oldestLost.count()
             << " us old";
}

// What a writer left in a file: chunks with successive numbers, of which only the last may be cut.
class Legacy {
 public:
  void add(const LoggedChunk& chunk, size_t step) {
    _process = chunk.writer.substr(chunk.writer.find('[') + 1);
    EXPECT_FALSE(_isCut) << chunk.writer << " goes on after a cut chunk";
    _isCut = !chunk.isWhole;
    if (chunk.number == LoggedChunk::kUnknown || chunk.number == kPromptNumber) return;
    EXPECT_EQ(chunk.number, _end) << chunk.writer;
    if (chunk.isWhole) _end = chunk.number + step;
  }

  const std::string& process() const { return _process; }
  bool isCut() const { return _isCut; }
  size_t end() const { return _end; }

 private:
  std::string _process;
  bool _isCut = false;
  size_t _end = 0;
};

std::map<std::string, Legacy> legaciesIn(const std::vector<LoggedChunk>& chunks, size_t step) {
  std::map<std::string, Legacy> legacies;
  for (const LoggedChunk& chunk : chunks) legacies[chunk.writer].add(chunk, step);
  return legacies;
}

class Kill : public testing::TestWithParam<Traffic> {
 protected:
  Kill() { std::cout << "ZEPHALIO_SEED=" << _seed << "\n"; }
  ~Kill() override { std::cout << _toll << "\n"; }

  void startFiles() {
    std::filesystem::remove(_assignment.log);
    std::filesystem::remove(_assignment.rawLog);
    _sizes.clear();
  }

  // Starts a victim, and kills it some milliseconds after its first piece.
  void liveAndDie(const Traffic& traffic) {
    constexpr std::array<int, 4> kPauses{0, 0, 100, 2000};
    _assignment.pieces = Pieces(static_cast<uint32_t>(_random()));
    _assignment.pause = microseconds(kPauses[_random() % kPauses.size()]);
    Victim victim([&](Progress& progress) { traffic.run(_assignment, progress); });
    ASSERT_TRUE(victim.waitUntilLogged(1)) << "it ended by itself";
    std::this_thread::sleep_for(microseconds(_random() % 8000));
    ++_toll.kills;
    victim.kill();
    _timeOfDeath = Progress::now();
    expectOnlyTheNewestLost(traffic, victim.progress());
  }

  void expectOnlyTheNewestLost(const Traffic& traffic, Progress& progress) {
    expectLog(_assignment.log, traffic, traffic.piecesOfChunk, progress);
    if (!traffic.knowsRawChunks) {
      expectTexts(progress);
    } else if (std::filesystem::exists(_assignment.rawLog)) {
      expectLog(_assignment.rawLog, traffic, 1, progress);
    }
  }

  void expectLog(const std::string& path, const Traffic& traffic, size_t step, Progress& progress) {
    const auto bytesOf = [&](std::string_view identifier, size_t number) {
      return traffic.bytesOf(_assignment.pieces, identifier, number);
    };
    const auto chunks = chunksOfLog(contentsOfFile(path).substr(_sizes[path]), bytesOf);
    _sizes[path] = static_cast<size_t>(std::filesystem::file_size(path));
    size_t end = 0;
    for (const auto& [writer, legacy] : legaciesIn(chunks, step)) {
      if (legacy.isCut()) ++_toll.cutChunks;
      if (writer.find("--read>") != std::string::npos) end = legacy.end();
    }
    const size_t logged = progress.logged / step * step;
    if (end < logged) expectToBeNew(traffic, end + step - 1, progress);
  }

  void expectToBeNew(const Traffic& traffic, size_t firstLost, Progress& progress) {
    EXPECT_FALSE(traffic.isSynchronous) << firstLost << " of " << progress.logged;
    EXPECT_LE(progress.ticks - progress.tickOf[firstLost], kWindowInTicks);
    _toll.mostLost = std::max(_toll.mostLost, progress.logged - firstLost);
    _toll.oldestLost =
        std::max(_toll.oldestLost, microseconds(_timeOfDeath - progress.timeOf[firstLost]));
  }

  // The chunks of a console's raw log are what each read(2) happened to bring.
  void expectTexts(Progress& progress) {
    const std::string text = joinedTextOfLog(_assignment.rawLog, "pre---read");
    std::string expected;
    std::optional<size_t> firstLost;
    for (uint32_t number = 0; number <= progress.logged; ++number) {
      expected += consoleAnswer(number);
      if (!firstLost.has_value() && expected.size() > text.size()) firstLost = number;
      expected += kPrompt;
    }
    EXPECT_TRUE(expected.starts_with(text));
    if (firstLost < progress.logged) expectToBeNew(GetParam(), *firstLost, progress);
  }

  const uint32_t _seed = numberFrom("ZEPHALIO_SEED", std::random_device()());
  std::minstd_rand _random{_seed};
  TemporaryFolder _folder;
  Assignment _assignment{.log = _folder.pathOf("log"), .rawLog = _folder.pathOf("raw")};
  std::map<std::string, size_t> _sizes;
  int64_t _timeOfDeath = 0;
  Toll _toll;
};

INSTANTIATE_TEST_SUITE_P(, Kill, testing::ValuesIn(everyTraffic()),
                         [](const auto& test) { return test.param.name; });

TEST_P(Kill, OnlyTheNewestIsLostAndOnlyTheLastChunkCut) {
  const int livesOfAFile = GetParam().knowsRawChunks ? kLivesOfAFile : 1;
  for (int i = 0; i < killsOfATest() && !HasFailure(); ++i) {
    if (i % livesOfAFile == 0) startFiles();
    liveAndDie(GetParam());
  }
}

size_t wholeChunksIn(const std::string& path) {
  const Traffic traffic = recorderTraffic();
  const auto chunks = chunksOfLog(contentsOfFile(path), [&](std::string_view identifier, size_t i) {
    return traffic.bytesOf(Pieces(0), identifier, i);
  });
  return static_cast<size_t>(std::count_if(chunks.begin(), chunks.end(),
                                           [](const LoggedChunk& chunk) { return chunk.isWhole; }));
}

// Without another byte that could push it out.
TEST(KillTest, APauseLeavesNothingToLose) {
  const TemporaryFolder folder;
  Assignment assignment{.log = folder.pathOf("log"), .rawLog = folder.pathOf("raw")};
  for (assignment.count = 3; assignment.count < 300; assignment.count *= 3) {
    Victim victim([&](Progress& progress) { recorderTraffic().run(assignment, progress); });
    ASSERT_TRUE(victim.waitUntilLogged(static_cast<uint32_t>(assignment.count)));
    ASSERT_TRUE(waitFor([&] { return wholeChunksIn(assignment.rawLog) == assignment.count; }));
    ASSERT_TRUE(waitFor([&] { return 3 * wholeChunksIn(assignment.log) == assignment.count; }));
    std::filesystem::remove(assignment.rawLog);
    std::filesystem::remove(assignment.log);
  }
}

class SharedLog : public Kill {
 protected:
  std::unique_ptr<Victim> startSharer() {
    auto victim = std::make_unique<Victim>(
        [this](Progress& progress) { GetParam().run(_assignment, progress); });
    EXPECT_TRUE(victim->waitUntilLogged(1)) << "it ended by itself";
    return victim;
  }

  // Lets several processes log, and kills one after another while the rest goes on.
  void killSharers() {
    std::vector<std::unique_ptr<Victim>> sharers;
    for (size_t i = 0; i < kSharers; ++i) sharers.push_back(startSharer());
    std::shuffle(sharers.begin(), sharers.end(), _random);
    while (!sharers.empty()) {
      std::this_thread::sleep_for(microseconds(_random() % 3000));
      ++_toll.kills;
      sharers.pop_back();
    }
  }

  // In one process only one thread writes to the file at a time, so it leaves one cut chunk.
  void expectOneCutChunkPerProcess() {
    const auto bytesOf = [&](std::string_view identifier, size_t number) {
      return GetParam().bytesOf(_assignment.pieces, identifier, number);
    };
    auto chunks = chunksOfLog(contentsOfFile(_assignment.log), bytesOf);
    std::erase_if(chunks, [](const LoggedChunk& chunk) { return chunk.writer.empty(); });
    std::map<std::string, int> cutOf;
    for (const auto& [writer, legacy] : legaciesIn(chunks, GetParam().piecesOfChunk)) {
      cutOf[legacy.process()] += legacy.isCut() ? 1 : 0;
    }
    for (const auto& [process, count] : cutOf) EXPECT_LE(count, 1) << process;
    for (const auto& [process, count] : cutOf) _toll.cutChunks += count;
  }
};

INSTANTIATE_TEST_SUITE_P(, SharedLog, testing::Values(twoThreadsTraffic(), synchronousTraffic()),
                         [](const auto& test) { return test.param.name; });

TEST_P(SharedLog, IsNotTornByTheDeathOfOneOfItsWriters) {
  _assignment.pieces = Pieces(_seed);
  // Otherwise they compete for the lock, and the file has gigabytes before the last has begun.
  _assignment.pause = microseconds(200);
  for (int i = 0; i < killsOfATest() / 2 && !HasFailure(); i += kSharers) {
    startFiles();
    killSharers();
    expectOneCutChunkPerProcess();
  }
}

}  // namespace
