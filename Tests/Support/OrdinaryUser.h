// Running a part of a test in a process of its own.
#pragma once

#include <functional>
#include <string>

namespace support {

/// How a child process ended.
struct ChildResult {
  /// What the function returned, or -1 if the child ended in another way.
  int status = -1;
  /// The signal that ended the child, or 0. SIGKILL if it did not end in time.
  int signal = 0;
  /// What the function stored in its message; the text of an exception that left it.
  std::string message;
};

/// What runs in the child: returns its exit status, 0 to 255, and may leave a message, which the
/// test prints if the status is not what it expects. Expectations of the test framework are lost in
/// there. It must start no thread: the child of a process with threads may not.
using ChildFunction = std::function<int(std::string* message)>;

/// Runs `function` in a forked child and waits for its end.
ChildResult runInChild(const ChildFunction& function);

/// As runInChild, as a user without rights: "nobody" if we are root, the user that we are
/// otherwise.
ChildResult runAsOrdinaryUser(const ChildFunction& function);

}  // namespace support
