#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

/// A program that answers each line on its standard input with one on its standard output.
class PeerProcess {
 public:
  /// Starts the program; a name without a slash is looked for in PATH.
  explicit PeerProcess(const std::vector<std::string>& command);
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;
  /// Ends its input, and waits for its end.
  ~PeerProcess();

  /// The next line that it prints; "failed it ended" if it printed none.
  std::string readLine();
  /// Sends a line and returns the answer.
  std::string ask(const std::string& line);

 private:
  int _end = -1;  // of the socket pair that is its input and output
  pid_t _process = -1;
  std::string _received;
};
