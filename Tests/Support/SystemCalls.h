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
  /// The name with the arguments that matter: "select 1.500000", "ioctl FIONREAD", "select
  /// forever", "open /dev/ttyS0 O_RDWR|O_NONBLOCK", "fcntl F_SETFL 0", "tcsetattr TCSANOW",
  /// "cfsetspeed 9600", "setsockopt SOL_SOCKET SO_KEEPALIVE 1", "connect AF_INET 127.0.0.1:4000",
  /// "bind AF_UNIX /path", "listen 5", "usleep 1000", "flock LOCK_EX"; otherwise only the name.
  std::string text;
  int descriptor = -1;
  /// The number of bytes asked for, the length of an address, the descriptor count of a select.
  int64_t size = 0;
  /// The structure passed to tcsetattr.
  std::string bytes = {};
  /// What the call returned, and the errno of a failure.
  int64_t result = 0;
  int error = 0;
  /// How often memory had been asked for before.
  size_t allocations = 0;
};

/// Watches the system calls of the code under test during its lifetime, and makes chosen ones fail.
/// Only one may exist at a time.
///
/// The calls are intercepted when the tests are linked (see Tests/CMakeLists.txt for their list). A
/// watch covers the calls of the thread that created it, or of all threads except those that are
/// exempt. A call within a shared library, such as an ioctl in the C library's tcgetattr, is not
/// intercepted. Nor is an allocation within one in a sanitizer build; in a plain build operator new
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
  /// Forgets the calls but keeps the plans.
  void clear();

  // Plans. `call` is a name or a text; the next `skip` such calls pass, then `times` of them are
  // affected. If several plans match, the first that is not used up applies.

  /// Makes calls fail with an errno, without asking the system.
  void fail(std::string_view call, int error, size_t skip = 0, size_t times = 1);
  /// The same, after the call was made: as close(2) frees the descriptor even if it fails.
  void failAfter(std::string_view call, int error, size_t skip = 0, size_t times = 1);
  /// Makes calls return `result` with errno `error`, without asking the system.
  void answer(std::string_view call, int64_t result, int error = 0, size_t skip = 0,
              size_t times = 1);
  /// Makes read, write and send transfer at most `size` bytes.
  void shorten(std::string_view call, int64_t size, size_t skip = 0, size_t times = 1);
  /// Runs `action` before calls, which then go ahead as usual. Its own calls are not watched.
  void before(std::string_view call, std::function<void()> action, size_t skip = 0,
              size_t times = 1);
  /// Makes the next malloc, after `skip` others, return null.
  void failAllocation(size_t skip = 0);
  /// Makes the next pthread_create, after `skip` others, return `error`. These are counted, but are
  /// not among the calls.
  void failThread(int error, size_t skip = 0);
  /// How many threads were asked for.
  size_t threads() const;

  /// Exempts the calling thread for good: for simulated devices.
  static void exemptThisThread();
};

/// While it lives, the calling thread's calls are watched, or are not.
class CallsWatched {
 public:
  explicit CallsWatched(bool areWatched);
  CallsWatched(const CallsWatched&) = delete;
  CallsWatched& operator=(const CallsWatched&) = delete;
  ~CallsWatched();

 private:
  const bool _wereExempt;
};

/// The blocks of memory that the tests and the code under test have allocated and not freed, with
/// or without a watch. In a sanitizer build it is always 0; there LeakSanitizer looks at the end.
int64_t liveBlocks();

/// Counts a pthread_create: the number of the error with which it must fail, or 0.
int countThread();

/// While it lives, every close(2) of other threads of the code under test waits. Unlike a watch it
/// does not order what these threads did before, so that a race detector still sees their races.
class HeldCloses {
 public:
  HeldCloses();
  HeldCloses(const HeldCloses&) = delete;
  HeldCloses& operator=(const HeldCloses&) = delete;
  ~HeldCloses();
};

}  // namespace support
