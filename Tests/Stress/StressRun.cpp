#include "Stress/StressRun.h"

#include <limits>
#include <string_view>
#include <utility>

#include "Stress/Verdict.h"
#include "Support/CallJitter.h"
#include "Support/Possessions.h"
#include "ZephalLogging.h"

namespace support {

namespace {

// Longer than anything in an episode may wait, on a loaded machine under a sanitizer.
constexpr std::chrono::seconds kEpisodeLimit{150};
constexpr std::chrono::seconds kEndOfThreads{20};

// How often threads give way: at every second place, rarely, never.
constexpr uint32_t kPlaces[] = {2, 8, 40, 0};

}  // namespace

StressRun::StressRun(std::chrono::seconds time, uint64_t seed, std::string name)
    : _time(time), _seed(seed), _name(std::move(name)), _watchdog(kEpisodeLimit) {}

bool StressRun::run() {
  if (episodeOf(_seed) == nullptr) return false;
  report("seed " + std::to_string(_seed));
  ZPKLoggingSetSink([](int, std::string_view) {});
  const auto end = std::chrono::steady_clock::now() + _time;
  uint64_t seed = _seed;
  do {
    runEpisode(*episodeOf(seed), seed);
    ++seed;
  } while (std::chrono::steady_clock::now() < end);
  ZPKLoggingSetSink(nullptr);
  reportCounts();
  return true;
}

const Episode* StressRun::episodeOf(uint64_t seed) const {
  const auto& all = episodes();
  if (_name.empty()) return &all[Dice(seed).below(all.size())];
  for (const Episode& episode : all) {
    if (_name == episode.name) return &episode;
  }
  return nullptr;
}

void StressRun::runEpisode(const Episode& episode, uint64_t seed) {
  beginEpisode(episode.name, seed);
  _watchdog.restart();
  Possessions before;
  before.blocks = std::numeric_limits<int64_t>::max();  // caches fill as they are used
  Dice dice(seed);
  dice.number();  // the one that chose the episode
  {
    const CallJitter jitter(seed, kPlaces[dice.below(std::size(kPlaces))]);
    episode.run(dice);
  }
  const std::string left = leftBehindSince(before, kEndOfThreads);
  require(left.empty(), left);
  ++_counts[episode.name];
}

void StressRun::reportCounts() const {
  size_t sum = 0;
  for (const auto& [name, count] : _counts) {
    report(name + " " + std::to_string(count));
    sum += count;
  }
  report("episodes " + std::to_string(sum));
}

}  // namespace support
