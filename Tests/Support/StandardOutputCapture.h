#pragma once

#include <string>

namespace support {

/// Captures the process's standard output, at the level of the descriptor, during its lifetime. If
/// the test has failed by then, the destructor prints the captured output after all.
class StandardOutputCapture {
 public:
  StandardOutputCapture();
  StandardOutputCapture(const StandardOutputCapture&) = delete;
  StandardOutputCapture& operator=(const StandardOutputCapture&) = delete;
  ~StandardOutputCapture();

  /// Everything printed so far.
  std::string text() const;

 private:
  int _file = -1;
  int _original = -1;
};

}  // namespace support
