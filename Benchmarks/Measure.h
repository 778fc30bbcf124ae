#pragma once

#include <functional>
#include <string>
#include <vector>

/// The seconds that `work` takes.
double secondsFor(const std::function<void()>& work);

/// Two ways of doing the same work.
struct Contest {
  double raw;    // median seconds of the raw loop
  double ours;   // median seconds of the library
  double ratio;  // median of raw time by our time, round by round: 1 is equal, less is slower
};

/// Runs both alternately, a warm-up and then `rounds` rounds, and takes medians.
Contest compare(int rounds, const std::function<void()>& raw, const std::function<void()>& ours);

/// Like compare, for work that measures itself and returns its seconds: preparing and cleaning up
/// are not counted.
Contest compareTimed(int rounds, const std::function<double()>& raw,
                     const std::function<double()>& ours);

double median(std::vector<double> values);

/// Prints one row of the result table.
void printRow(const std::string& what, const std::string& goal, const std::string& result);
void printHeader(const std::string& title);
std::string number(double value, int digits);
/// "1.25 GB/s".
std::string rate(double bytes, double seconds);
