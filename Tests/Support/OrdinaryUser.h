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
  /// What the function stored in its message, or the text of the exception that it threw.
  std::string message;
};

/// What runs in the child: returns its exit status, 0 to 255, and may leave a message, which the
/// test prints if the status is not what it expects. The test framework does not see expectations
/// that fail in the child. The function must not start threads: the child of a process with threads
/// may not.
using ChildFunction = std::function<int(std::string* message)>;

/// Runs `function` in a forked child and waits for the child to end.
ChildResult runInChild(const ChildFunction& function);

/// Whether a child can allocate memory even if other threads of its parent allocate at the moment
/// of the fork. Not with AddressSanitizer: a lock of its allocator that is held at that moment
/// stays held in the child, at least with g++ 12.
bool canChildAlwaysAllocate();

/// Like runInChild, but as a user without privileges: "nobody" if we are root, otherwise the
/// current user.
ChildResult runAsOrdinaryUser(const ChildFunction& function);

}  // namespace support
