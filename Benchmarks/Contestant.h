#pragma once

#include <sys/types.h>

#include <array>
#include <functional>

/// One side of a contest in a process of its own, so that it works with a heap that no other side
/// has used: what malloc keeps, maps and gives back depends on all that was freed before.
class Contestant {
 public:
  /// Makes ready, in that process, and returns the work.
  using Preparation = std::function<std::function<void()>()>;

  explicit Contestant(const Preparation& prepare);
  Contestant(const Contestant&) = delete;
  Contestant& operator=(const Contestant&) = delete;
  /// Ends the process.
  ~Contestant();

  /// Lets it do its work once, and returns the seconds of processor time. Ends the program if the
  /// work failed.
  double run() const;

 private:
  [[noreturn]] void work(const Preparation& prepare) const;

  std::array<int, 2> _ends{};  // ours and its
  pid_t _process = -1;
};
