#pragma once

#include <string>
#include <thread>

/// A FIFO for a log that is full from the start: whoever writes to it waits until it is drained. So
/// everything that is logged gathers in memory, however the threads are scheduled.
class HeldPipe {
 public:
  explicit HeldPipe(std::string path);
  HeldPipe(const HeldPipe&) = delete;
  HeldPipe& operator=(const HeldPipe&) = delete;
  /// Waits until the last writer has closed the FIFO, if it is drained, and removes it.
  ~HeldPipe();

  const std::string& path() const { return _path; }
  /// Starts to read what is written, in a thread of its own.
  void drain();

 private:
  const std::string _path;
  int _descriptor;
  std::thread _drain;
};
