#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Contestant.h"

/// The processor time of this process so far, in seconds: all of its threads, in user and system
/// mode. A device is a separate process, and whatever else runs on the machine does not count.
double processorSeconds();
/// The seconds of processor time that `work` takes.
double secondsFor(const std::function<void()>& work);
/// The seconds that pass on the clock during `work`.
double wallSecondsFor(const std::function<void()>& work);

/// Two ways of doing the same work, in processor time.
struct Contest {
  double base;   // median seconds of what the library is compared with
  double ours;   // median seconds of the library
  double ratio;  // median of base by ours, round by round: 1 is equal, less is slower
};

/// Runs both alternately, a warm-up and then `rounds` rounds, and takes medians.
Contest compare(int rounds, const std::function<void()>& base, const std::function<void()>& ours);

/// Like compare, for work that measures itself and returns its seconds: preparing and cleaning up
/// are not counted.
Contest compareTimed(int rounds, const std::function<double()>& base,
                     const std::function<double()>& ours);

/// Like compare, with each side in a process of its own. Each is prepared there.
Contest compareApart(int rounds, const Contestant::Preparation& base,
                     const Contestant::Preparation& ours);

double median(std::vector<double> values);

/// Prints one row of the result table.
void printRow(const std::string& what, const std::string& goal, const std::string& result);
void printHeader(const std::string& title);
/// A row of a peer that this program was built without.
void printMissing(const std::string& what, const std::string& goal);
std::string number(double value, int digits);
/// "1.25 (BASE 123 ns, OURS 98 ns)": the ratio, and what one of `count` units took.
std::string eachOf(const Contest& contest, size_t count, const char* base, const char* ours);
/// Like eachOf, but with how many times the base's time ours is.
std::string timesEachOf(const Contest& contest, size_t count, const char* base, const char* ours);
/// "1.25 GB/s".
std::string rate(double bytes, double seconds);
