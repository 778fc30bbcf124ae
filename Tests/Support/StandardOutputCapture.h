#pragma once

#include <string>

namespace support {

/// Takes over the process's standard output, at the level of the descriptor, for as long as it
/// lives. If the test has failed by its end, what was captured is printed after all.
class StandardOutputCapture {
 public:
  StandardOutputCapture();
  StandardOutputCapture(const StandardOutputCapture&) = delete;
  StandardOutputCapture& operator=(const StandardOutputCapture&) = delete;
  ~StandardOutputCapture();

  /// All that was printed so far.
  std::string text() const;

 private:
  int _file = -1;
  int _original = -1;
};

}  // namespace support
