#include "Measure.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

double secondsFor(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

Contest compare(int rounds, const std::function<void()>& raw, const std::function<void()>& ours) {
  return compareTimed(
      rounds, [&] { return secondsFor(raw); }, [&] { return secondsFor(ours); });
}

Contest compareTimed(int rounds, const std::function<double()>& raw,
                     const std::function<double()>& ours) {
  raw();
  ours();
  std::vector<double> rawTimes;
  std::vector<double> ourTimes;
  std::vector<double> ratios;
  for (int round = 0; round < rounds; ++round) {
    // The order changes from round to round, so that neither always runs on the warmer machine.
    if (round % 2 == 0) rawTimes.push_back(raw());
    ourTimes.push_back(ours());
    if (round % 2 != 0) rawTimes.push_back(raw());
    ratios.push_back(rawTimes.back() / ourTimes.back());
  }
  return {median(rawTimes), median(ourTimes), median(ratios)};
}

void printHeader(const std::string& title) {
  std::printf("\n%s\n\n| What | Goal | Result |\n|---|---|---|\n", title.c_str());
  std::fflush(stdout);  // a forked process must not print it again
}

void printRow(const std::string& what, const std::string& goal, const std::string& result) {
  std::printf("| %s | %s | %s |\n", what.c_str(), goal.c_str(), result.c_str());
  std::fflush(stdout);
}

std::string number(double value, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

std::string rate(double bytes, double seconds) {
  return number(bytes / seconds * 1e-9, 2) + " GB/s";
}
