#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace support {

/// One system call of the code under test.
struct SystemCall {
  /// "select", "read", "ioctl" and so on.
  std::string name;
  /// The name with the arguments that matter: "select 1.500000", "select forever",
  /// "ioctl FIONREAD", "open /dev/ttyS0 O_RDWR|O_NONBLOCK", "fcntl F_SETFL 0",
  /// "tcsetattr TCSANOW", "cfsetspeed 9600", "setsockopt SOL_SOCKET SO_KEEPALIVE 1",
  /// "connect AF_INET 127.0.0.1:4000", "bind AF_UNIX /path", "listen 5", "usleep 1000", "flock
  /// LOCK_EX"; else the name alone.
  std::string text;
  int descriptor = -1;
  /// The number of bytes asked for, the length of an address, the descriptor count of a select.
  int64_t size = 0;
  /// The structure handed to tcsetattr.
  std::string bytes = {};
  /// What the call returned, and the errno that went with a failure.
  int64_t result = 0;
  int error = 0;
};

/// Watches the system calls of the code under test for as long as it lives, and makes chosen ones
/// fail. One at a time.
///
/// The calls are intercepted when the tests are linked (see Tests/CMakeLists.txt for their list).
/// Watched are the calls of the thread that made the object, or of all threads but those that are
/// exempt. A call within a shared library, such as an ioctl in the C library's tcgetattr, does not
/// pass here. Nor does an allocation within one in a sanitizer build; in a plain build operator new
/// is counted everywhere.
class SystemCalls {
 public:
  enum class Threads { kThis, kAll };

  explicit SystemCalls(Threads threads = Threads::kThis);
  SystemCalls(const SystemCalls&) = delete;
  SystemCalls& operator=(const SystemCalls&) = delete;
  ~SystemCalls();

  /// The calls so far, in the order in which they began; a call that is still running has result 0.
  std::vector<SystemCall> all() const;
  /// Their texts, or only those of the calls with these names.
  std::vector<std::string> texts() const;
  std::vector<std::string> texts(std::initializer_list<std::string_view> names) const;
  /// How many calls have this name or this text.
  size_t count(std::string_view call) const;
  /// How often memory was asked for (malloc, calloc, realloc, operator new).
  size_t allocations() const;
  /// Forgets the calls, keeps what is planned.
  void clear();

  // Plans. `call` is a name or a text; the next `skip` such calls pass, then `times` of them are
  // hit. Of several plans that fit, the first that is not used up counts.

  /// Lets calls fail with an errno, without asking the system.
  void fail(std::string_view call, int error, size_t skip = 0, size_t times = 1);
  /// Lets calls return `result` with errno `error`, without asking the system.
  void answer(std::string_view call, int64_t result, int error = 0, size_t skip = 0,
              size_t times = 1);
  /// Lets read, write, writev and send move `size` bytes at most.
  void shorten(std::string_view call, int64_t size, size_t skip = 0, size_t times = 1);
  /// Runs `action` ahead of calls, which then go on as usual. Its own calls are not watched.
  void before(std::string_view call, std::function<void()> action, size_t skip = 0,
              size_t times = 1);
  /// Lets the next malloc, after `skip`, return null.
  void failAllocation(size_t skip = 0);

  /// Takes the calling thread out of the watch for good: for simulated devices.
  static void exemptThisThread();
};

/// While it lives, every close(2) of another thread of the code under test waits. Unlike a watch it
/// orders nothing that these threads did before, so that a race detector still sees it.
class HeldCloses {
 public:
  HeldCloses();
  HeldCloses(const HeldCloses&) = delete;
  HeldCloses& operator=(const HeldCloses&) = delete;
  ~HeldCloses();
};

}  // namespace support
