#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Peers/Contender.h"
#include "Peers/PeerProcess.h"
#include "Peers/PeerTask.h"

/// One task for all contenders, each in a process of its own with a device of its own. The rounds
/// are interleaved, so that whatever else happens on the machine meets all of them.
class PeerContest {
 public:
  struct Effort {
    int rounds;
    double seconds;      // on the clock, for one contender in one round
    size_t connections;  // that are open when memory is measured
  };
  /// The programs whose processes the contenders are.
  struct Programs {
    std::string own;
    std::string python;
  };

  /// `onlyPython` leaves out the contenders that are not in Python.
  PeerContest(PeerTask task, Effort effort, Programs programs, bool onlyPython);

  /// Runs all rounds and prints a line for each contender, with tabs between its columns: task,
  /// contender, "measured", the bytes of a response that was measured instead of a long one (or 0),
  /// then median, least and greatest of the processor time and of the time on the clock, in seconds
  /// for one unit. Of memory, they are bytes. If one takes no part, the line ends with the reason
  /// after the contender.
  void run();

 private:
  struct Entry {
    const Contender* contender;
    std::unique_ptr<Device> device;
    std::unique_ptr<PeerProcess> process;
    std::string excuse;             // why it takes no part; empty if it does
    size_t units;                   // in a round
    std::vector<double> processor;  // for each round, seconds a unit; bytes, of memory
    std::vector<double> wall;
  };
  struct Times {
    double processor;
    double wall;
  };

  void start(Entry& entry) const;
  std::vector<std::string> commandFor(const Entry& entry) const;
  void warmUp(Entry& entry) const;
  void runRound(Entry& entry) const;
  std::optional<Times> ask(Entry& entry) const;
  std::string requestFor(const Entry& entry) const;
  void print(const Entry& entry) const;

  PeerTask _task;
  Effort _effort;
  Programs _programs;
  bool _onlyPython;
};
