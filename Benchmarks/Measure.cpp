#include "Measure.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace {

// In a unit that leaves it readable.
std::string duration(double seconds) {
  if (seconds < 100e-9) return number(seconds * 1e9, 1) + " ns";
  if (seconds < 10e-6) return number(seconds * 1e9, 0) + " ns";
  if (seconds < 1e-3) return number(seconds * 1e6, 1) + " us";
  return number(seconds * 1e3, 1) + " ms";
}

std::string withDurations(double result, const Contest& contest, size_t count, const char* base,
                          const char* ours) {
  const double units = static_cast<double>(count);
  return number(result, 2) + " (" + base + " " + duration(contest.base / units) + ", " + ours +
         " " + duration(contest.ours / units) + ")";
}

}  // namespace

double processorSeconds() {
  timespec time{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double secondsFor(const std::function<void()>& work) {
  const double start = processorSeconds();
  work();
  return processorSeconds() - start;
}

double wallSecondsFor(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

Contest compare(int rounds, const std::function<void()>& base, const std::function<void()>& ours) {
  return compareTimed(
      rounds, [&] { return secondsFor(base); }, [&] { return secondsFor(ours); });
}

Contest compareTimed(int rounds, const std::function<double()>& base,
                     const std::function<double()>& ours) {
  base();
  ours();
  std::vector<double> baseTimes;
  std::vector<double> ourTimes;
  std::vector<double> ratios;
  for (int round = 0; round < rounds; ++round) {
    // The order changes from round to round, so that neither always runs on the warmer machine.
    if (round % 2 == 0) baseTimes.push_back(base());
    ourTimes.push_back(ours());
    if (round % 2 != 0) baseTimes.push_back(base());
    ratios.push_back(baseTimes.back() / ourTimes.back());
  }
  return {median(baseTimes), median(ourTimes), median(ratios)};
}

Contest compareApart(int rounds, const Contestant::Preparation& base,
                     const Contestant::Preparation& ours) {
  const Contestant theirSide(base);
  const Contestant ourSide(ours);
  return compareTimed(
      rounds, [&] { return theirSide.run(); }, [&] { return ourSide.run(); });
}

void printHeader(const std::string& title) {
  std::printf("\n%s\n\n| What | Goal | Result |\n|---|---|---|\n", title.c_str());
  std::fflush(stdout);  // a forked process must not print it again
}

void printRow(const std::string& what, const std::string& goal, const std::string& result) {
  std::printf("| %s | %s | %s |\n", what.c_str(), goal.c_str(), result.c_str());
  std::fflush(stdout);
}

void printMissing(const std::string& what, const std::string& goal) {
  printRow(what, goal, "not installed");
}

std::string number(double value, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

std::string eachOf(const Contest& contest, size_t count, const char* base, const char* ours) {
  return withDurations(contest.ratio, contest, count, base, ours);
}

std::string timesEachOf(const Contest& contest, size_t count, const char* base, const char* ours) {
  return withDurations(1 / contest.ratio, contest, count, base, ours);
}

std::string rate(double bytes, double seconds) {
  return number(bytes / seconds * 1e-9, 2) + " GB/s";
}
