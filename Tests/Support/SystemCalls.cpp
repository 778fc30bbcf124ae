#include "Support/SystemCalls.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <thread>

#include "Support/Interception.h"
#include "Support/TerminalState.h"
#include "Support/TestClock.h"

namespace support {

// The two compilers say so in two ways.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HAS_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HAS_SANITIZER
#endif
#endif

// The mangled name of operator new tells which type size_t is.
#if SIZE_MAX > UINT32_MAX
#define OPERATOR_NEW "_Znwm"
#else
#define OPERATOR_NEW "_Znwj"
#endif

// The linker's names for the calls themselves.
extern "C" {
ssize_t __real_read(int, void*, size_t);
ssize_t __real_write(int, const void*, size_t);
ssize_t __real_send(int, const void*, size_t, int);
int __real_ioctl(int, unsigned long, void*);
int __real_open(const char*, int, unsigned);
int __real_close(int);
int __real_fcntl(int, int, void*);
int __real_flock(int, int);
int __real_tcgetattr(int, termios*);
int __real_tcsetattr(int, int, const termios*);
int __real_cfsetspeed(termios*, speed_t);
int __real_socket(int, int, int);
int __real_setsockopt(int, int, int, const void*, socklen_t);
int __real_connect(int, const sockaddr*, socklen_t);
int __real_bind(int, const sockaddr*, socklen_t);
int __real_listen(int, int);
int __real_accept4(int, sockaddr*, socklen_t*, int);
int __real_shutdown(int, int);
int __real_lstat(const char*, struct stat*);
int __real_unlink(const char*);
void __real_tzset();
void* __real_malloc(size_t);
void* __real_calloc(size_t, size_t);
void* __real_realloc(void*, size_t);
void* realNew(size_t) asm("__real_" OPERATOR_NEW);
void __real_free(void*);
}

namespace {

using interception::Deed;
using interception::detailed;
using interception::intercept;
using interception::isWatched;
using interception::plain;
using interception::Plan;

struct Watch {
  std::mutex mutex;
  std::vector<SystemCall> calls;
  std::vector<Plan> plans;
  std::thread::id owner;
  bool coversAllThreads = false;
  // Keeps a call that began under an earlier watch, or before a clear, from storing its result.
  size_t generation = 0;
};

// Never destroyed: calls go on until the very end of the process.
Watch& watch() {
  static Watch* const watch = new Watch;
  return *watch;
}

std::atomic<bool> isWatching{false};
std::atomic<size_t> allocationCount{0};
constexpr int64_t kNoFailure = -1;
std::atomic<int64_t> allocationsUntilFailure{kNoFailure};
std::atomic<int64_t> liveBlockCount{0};
std::atomic<size_t> threadCount{0};
std::atomic<int64_t> threadsUntilFailure{kNoFailure};
std::atomic<int> threadFailure{0};

thread_local bool isExempt = false;
thread_local bool isOwner = false;
std::atomic<bool> coversAllThreads{false};

bool fits(const SystemCall& call, std::string_view wanted) {
  return call.name == wanted || call.text == wanted;
}

std::optional<Plan> nextPlan(std::vector<Plan>& plans, const SystemCall& call) {
  std::optional<Plan> chosen;
  for (Plan& plan : plans) {
    if (plan.times == 0 || !fits(call, plan.call)) continue;
    if (plan.skip > 0) {
      --plan.skip;
    } else if (!chosen.has_value()) {
      --plan.times;
      chosen = plan;
    }
  }
  return chosen;
}

}  // namespace

namespace interception {

bool isWatched() {
  return isWatching.load(std::memory_order_acquire) && !isExempt &&
         (isOwner || coversAllThreads.load(std::memory_order_relaxed));
}

Entry enter(const SystemCall& call) {
  Watch& state = watch();
  const std::lock_guard guard(state.mutex);
  // The watch may have ended in the meantime.
  if (!isWatching.load(std::memory_order_relaxed)) return {state.generation - 1, 0, std::nullopt};
  state.calls.push_back(call);
  state.calls.back().allocations = allocationCount;
  return {state.generation, state.calls.size() - 1, nextPlan(state.plans, call)};
}

void leave(const Entry& entry, int64_t result, int error) {
  Watch& state = watch();
  const std::lock_guard guard(state.mutex);
  if (entry.generation != state.generation) return;
  state.calls[entry.index].result = result;
  state.calls[entry.index].error = error;
}

SystemCall plain(const char* name, int descriptor, int64_t size) {
  SystemCall call;
  call.name = name;
  call.text = name;
  call.descriptor = descriptor;
  call.size = size;
  return call;
}

SystemCall detailed(const char* name, const std::string& detail, int descriptor, int64_t size) {
  SystemCall call = plain(name, descriptor, size);
  call.text += " " + detail;
  return call;
}

}  // namespace interception

namespace {

std::string nameOr(const std::map<unsigned long, const char*>& names, unsigned long number) {
  const auto found = names.find(number);
  return found == names.end() ? std::to_string(number) : found->second;
}

std::string requestName(unsigned long request) {
  return nameOr({{FIONREAD, "FIONREAD"},
                 {TIOCEXCL, "TIOCEXCL"},
                 {TIOCNXCL, "TIOCNXCL"},
                 {kGetExactAttributesRequest, "TCGETS2"},
                 {kSetExactAttributesRequest, "TCSETS2"}},
                request);
}

std::string timeText(const timeval* time) {
  if (time == nullptr) return "forever";
  char text[64];
  std::snprintf(text, sizeof text, "%lld.%06ld", static_cast<long long>(time->tv_sec),
                static_cast<long>(time->tv_usec));
  return text;
}

std::string flagsText(int flags) {
  std::string text = (flags & O_ACCMODE) == O_RDWR     ? "O_RDWR"
                     : (flags & O_ACCMODE) == O_WRONLY ? "O_WRONLY"
                                                       : "O_RDONLY";
  const std::pair<int, const char*> names[] = {
      {O_NOCTTY, "|O_NOCTTY"}, {O_NONBLOCK, "|O_NONBLOCK"}, {O_CLOEXEC, "|O_CLOEXEC"},
      {O_CREAT, "|O_CREAT"},   {O_EXCL, "|O_EXCL"},         {O_TRUNC, "|O_TRUNC"},
      {O_APPEND, "|O_APPEND"}};
  // O_LARGEFILE is not 0 where a program has 32 bits, and says nothing that a test asks about.
  int rest = flags & ~O_ACCMODE & ~O_LARGEFILE;
  for (const auto& [flag, name] : names) {
    if ((rest & flag) == flag) text += name;
    rest &= ~flag;
  }
  return rest == 0 ? text : text + "|" + std::to_string(rest);
}

std::string commandText(int command, long argument) {
  const std::string name = nameOr({{F_SETFL, "F_SETFL"},
                                   {F_GETFL, "F_GETFL"},
                                   {F_SETFD, "F_SETFD"},
                                   {F_GETFD, "F_GETFD"},
                                   {F_DUPFD_CLOEXEC, "F_DUPFD_CLOEXEC"}},
                                  static_cast<unsigned long>(command));
  const bool takesNothing = command == F_GETFL || command == F_GETFD;
  return takesNothing ? name : name + " " + std::to_string(argument);
}

std::string optionText(int level, int option, const void* value, socklen_t length) {
  std::string text;
  if (level == SOL_SOCKET) {
    text = "SOL_SOCKET " + nameOr({{SO_REUSEADDR, "SO_REUSEADDR"},
                                   {SO_REUSEPORT, "SO_REUSEPORT"},
                                   {SO_KEEPALIVE, "SO_KEEPALIVE"},
                                   {SO_LINGER, "SO_LINGER"}},
                                  static_cast<unsigned long>(option));
  } else if (level == IPPROTO_TCP) {
    text =
        "IPPROTO_TCP " + nameOr({{TCP_NODELAY, "TCP_NODELAY"}}, static_cast<unsigned long>(option));
  } else {
    text = std::to_string(level) + " " + std::to_string(option);
  }
  if (length == sizeof(int32_t)) text += " " + std::to_string(*static_cast<const int32_t*>(value));
  return text;
}

std::string addressText(const sockaddr* address, socklen_t length) {
  if (address->sa_family == AF_UNIX) {
    return std::string("AF_UNIX ") + reinterpret_cast<const sockaddr_un*>(address)->sun_path;
  }
  const std::string family =
      nameOr({{AF_INET, "AF_INET"}, {AF_UNSPEC, "AF_UNSPEC"}}, address->sa_family);
  if (length != sizeof(sockaddr_in)) return family;
  const auto* internet = reinterpret_cast<const sockaddr_in*>(address);
  char host[INET_ADDRSTRLEN] = "";
  ::inet_ntop(AF_INET, &internet->sin_addr, host, sizeof host);
  return family + " " + host + ":" + std::to_string(ntohs(internet->sin_port));
}

// Counts a call; true if it must fail.
bool countCall(std::atomic<size_t>& count, std::atomic<int64_t>& untilFailure) {
  if (!isWatched()) return false;
  count.fetch_add(1, std::memory_order_relaxed);
  if (untilFailure.load(std::memory_order_relaxed) == kNoFailure) return false;
  return untilFailure.fetch_sub(1, std::memory_order_relaxed) == 0;
}

bool countAllocation() { return countCall(allocationCount, allocationsUntilFailure); }

void* countBlock(void* block) {
  if (block != nullptr) liveBlockCount.fetch_add(1, std::memory_order_relaxed);
  return block;
}

std::atomic<bool> holdsCloses{false};
thread_local bool holdsOwnCloses = true;

void waitWhileClosesAreHeld() {
  if (isExempt || !holdsOwnCloses) return;
  while (holdsCloses.load(std::memory_order_acquire)) std::this_thread::yield();
}

void addPlan(Plan plan) {
  const CallsWatched unwatched(false);
  Watch& state = watch();
  const std::lock_guard guard(state.mutex);
  state.plans.push_back(std::move(plan));
}

#ifdef HAS_SANITIZER
constexpr bool hasOwnNew = false;
#else
constexpr bool hasOwnNew = true;
#endif

}  // namespace

SystemCalls::SystemCalls(Threads threads) {
  Watch& state = watch();
  const std::lock_guard guard(state.mutex);
  state.calls.clear();
  state.plans.clear();
  ++state.generation;
  allocationCount = 0;
  allocationsUntilFailure = kNoFailure;
  threadCount = 0;
  threadsUntilFailure = kNoFailure;
  isOwner = true;
  coversAllThreads = threads == Threads::kAll;
  isWatching.store(true, std::memory_order_release);
}

SystemCalls::~SystemCalls() {
  isWatching.store(false, std::memory_order_release);
  isOwner = false;
  Watch& state = watch();
  const std::lock_guard guard(state.mutex);
  state.calls.clear();
  state.plans.clear();
  ++state.generation;
}

std::vector<SystemCall> SystemCalls::all() const {
  const CallsWatched unwatched(false);
  Watch& state = watch();
  const std::lock_guard guard(state.mutex);
  return state.calls;
}

std::vector<std::string> SystemCalls::texts() const {
  const CallsWatched unwatched(false);
  std::vector<std::string> texts;
  for (const SystemCall& call : all()) texts.push_back(call.text);
  return texts;
}

std::vector<std::string> SystemCalls::texts(std::initializer_list<std::string_view> names) const {
  const CallsWatched unwatched(false);
  std::vector<std::string> texts;
  for (const SystemCall& call : all()) {
    if (std::find(names.begin(), names.end(), call.name) != names.end()) texts.push_back(call.text);
  }
  return texts;
}

size_t SystemCalls::count(std::string_view wanted) const {
  const CallsWatched unwatched(false);
  const std::vector<SystemCall> calls = all();
  return static_cast<size_t>(std::count_if(
      calls.begin(), calls.end(), [&](const SystemCall& call) { return fits(call, wanted); }));
}

size_t SystemCalls::allocations() const { return allocationCount; }

void SystemCalls::clear() {
  const CallsWatched unwatched(false);
  Watch& state = watch();
  const std::lock_guard guard(state.mutex);
  state.calls.clear();
  ++state.generation;
  allocationCount = 0;
}

void SystemCalls::fail(std::string_view call, int error, size_t skip, size_t times) {
  answer(call, -1, error, skip, times);
}

void SystemCalls::failAfter(std::string_view call, int error, size_t skip, size_t times) {
  const CallsWatched unwatched(false);
  addPlan({.call = std::string(call),
           .skip = skip,
           .times = times,
           .deed = Deed::kAnswerAfter,
           .value = -1,
           .error = error,
           .action = {}});
}

void SystemCalls::answer(std::string_view call, int64_t result, int error, size_t skip,
                         size_t times) {
  const CallsWatched unwatched(false);
  addPlan({.call = std::string(call),
           .skip = skip,
           .times = times,
           .deed = Deed::kAnswer,
           .value = result,
           .error = error,
           .action = {}});
}

void SystemCalls::shorten(std::string_view call, int64_t size, size_t skip, size_t times) {
  const CallsWatched unwatched(false);
  addPlan({.call = std::string(call),
           .skip = skip,
           .times = times,
           .deed = Deed::kShorten,
           .value = size,
           .error = 0,
           .action = {}});
}

void SystemCalls::before(std::string_view call, std::function<void()> action, size_t skip,
                         size_t times) {
  const CallsWatched unwatched(false);
  addPlan({.call = std::string(call),
           .skip = skip,
           .times = times,
           .deed = Deed::kAct,
           .value = 0,
           .error = 0,
           .action = std::move(action)});
}

void SystemCalls::failAllocation(size_t skip) {
  allocationsUntilFailure = static_cast<int64_t>(skip);
}

void SystemCalls::failThread(int error, size_t skip) {
  threadFailure = error;
  threadsUntilFailure = static_cast<int64_t>(skip);
}

size_t SystemCalls::threads() const { return threadCount; }

void SystemCalls::exemptThisThread() { isExempt = true; }

CallsWatched::CallsWatched(bool areWatched) : _wereExempt(isExempt) { isExempt = !areWatched; }

CallsWatched::~CallsWatched() { isExempt = _wereExempt; }

int64_t liveBlocks() { return hasOwnNew ? liveBlockCount.load() : 0; }

int countThread() { return countCall(threadCount, threadsUntilFailure) ? threadFailure.load() : 0; }

HeldCloses::HeldCloses() {
  holdsOwnCloses = false;
  holdsCloses.store(true, std::memory_order_release);
}

HeldCloses::~HeldCloses() {
  holdsCloses.store(false, std::memory_order_release);
  holdsOwnCloses = true;
}

// The functions to which the linker directs the calls.
extern "C" {

int __wrap_select(int count, fd_set* readable, fd_set* writable, fd_set* odd, timeval* time) {
  return intercept([&] { return detailed("select", timeText(time), -1, count); }, count,
                   [&](int64_t) { return selectByClock(count, readable, writable, odd, time); });
}

ssize_t __wrap_read(int descriptor, void* buffer, size_t count) {
  const auto size = static_cast<int64_t>(count);
  return intercept([&] { return plain("read", descriptor, size); }, size,
                   [&](int64_t allowed) {
                     return __real_read(descriptor, buffer, static_cast<size_t>(allowed));
                   });
}

ssize_t __wrap_write(int descriptor, const void* bytes, size_t count) {
  const auto size = static_cast<int64_t>(count);
  return intercept([&] { return plain("write", descriptor, size); }, size,
                   [&](int64_t allowed) {
                     return __real_write(descriptor, bytes, static_cast<size_t>(allowed));
                   });
}

ssize_t __wrap_send(int descriptor, const void* bytes, size_t count, int flags) {
  const auto size = static_cast<int64_t>(count);
  return intercept([&] { return plain("send", descriptor, size); }, size,
                   [&](int64_t allowed) {
                     return __real_send(descriptor, bytes, static_cast<size_t>(allowed), flags);
                   });
}

int __wrap_ioctl(int descriptor, unsigned long request, ...) {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return intercept([&] { return detailed("ioctl", requestName(request), descriptor); }, 0,
                   [&](int64_t) { return __real_ioctl(descriptor, request, argument); });
}

int __wrap_open(const char* path, int flags, ...) {
  unsigned mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, unsigned);
    va_end(arguments);
  }
  return intercept([&] { return detailed("open", std::string(path) + " " + flagsText(flags), -1); },
                   0, [&](int64_t) { return __real_open(path, flags, mode); });
}

int __wrap_close(int descriptor) {
  waitWhileClosesAreHeld();
  return intercept([&] { return plain("close", descriptor); }, 0,
                   [&](int64_t) { return __real_close(descriptor); });
}

int __wrap_fcntl(int descriptor, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return intercept(
      [&] {
        return detailed("fcntl", commandText(command, reinterpret_cast<long>(argument)),
                        descriptor);
      },
      0, [&](int64_t) { return __real_fcntl(descriptor, command, argument); });
}

int __wrap_flock(int descriptor, int operation) {
  return intercept(
      [&] {
        const auto number = static_cast<unsigned long>(operation);
        const std::string name = nameOr(
            {{LOCK_EX, "LOCK_EX"}, {LOCK_EX | LOCK_NB, "LOCK_EX|LOCK_NB"}, {LOCK_UN, "LOCK_UN"}},
            number);
        return detailed("flock", name, descriptor);
      },
      0, [&](int64_t) { return __real_flock(descriptor, operation); });
}

int __wrap_tcgetattr(int descriptor, termios* attributes) {
  return intercept([&] { return plain("tcgetattr", descriptor); }, 0,
                   [&](int64_t) { return __real_tcgetattr(descriptor, attributes); });
}

int __wrap_tcsetattr(int descriptor, int when, const termios* attributes) {
  return intercept(
      [&] {
        const std::string name =
            nameOr({{TCSANOW, "TCSANOW"}, {TCSADRAIN, "TCSADRAIN"}, {TCSAFLUSH, "TCSAFLUSH"}},
                   static_cast<unsigned long>(when));
        SystemCall call = detailed("tcsetattr", name, descriptor);
        call.bytes.assign(reinterpret_cast<const char*>(attributes), sizeof *attributes);
        return call;
      },
      0, [&](int64_t) { return __real_tcsetattr(descriptor, when, attributes); });
}

int __wrap_cfsetspeed(termios* attributes, speed_t speed) {
  return intercept([&] { return detailed("cfsetspeed", std::to_string(speed), -1); }, 0,
                   [&](int64_t) { return __real_cfsetspeed(attributes, speed); });
}

int __wrap_socket(int family, int type, int protocol) {
  return intercept(
      [&] {
        const auto number = static_cast<unsigned long>(family);
        const std::string name = nameOr({{AF_INET, "AF_INET"}, {AF_UNIX, "AF_UNIX"}}, number);
        return detailed("socket", name + ((type & SOCK_CLOEXEC) != 0 ? " SOCK_CLOEXEC" : ""), -1);
      },
      0, [&](int64_t) { return __real_socket(family, type, protocol); });
}

int __wrap_setsockopt(int descriptor, int level, int option, const void* value, socklen_t length) {
  return intercept(
      [&] { return detailed("setsockopt", optionText(level, option, value, length), descriptor); },
      0, [&](int64_t) { return __real_setsockopt(descriptor, level, option, value, length); });
}

int __wrap_connect(int descriptor, const sockaddr* address, socklen_t length) {
  return intercept(
      [&] { return detailed("connect", addressText(address, length), descriptor, length); }, 0,
      [&](int64_t) { return __real_connect(descriptor, address, length); });
}

int __wrap_bind(int descriptor, const sockaddr* address, socklen_t length) {
  return intercept(
      [&] { return detailed("bind", addressText(address, length), descriptor, length); }, 0,
      [&](int64_t) { return __real_bind(descriptor, address, length); });
}

int __wrap_listen(int descriptor, int backlog) {
  return intercept([&] { return detailed("listen", std::to_string(backlog), descriptor); }, 0,
                   [&](int64_t) { return __real_listen(descriptor, backlog); });
}

int __wrap_accept4(int descriptor, sockaddr* address, socklen_t* length, int flags) {
  return intercept([&] { return plain("accept4", descriptor); }, 0,
                   [&](int64_t) { return __real_accept4(descriptor, address, length, flags); });
}

int __wrap_shutdown(int descriptor, int how) {
  return intercept([&] { return detailed("shutdown", std::to_string(how), descriptor); }, 0,
                   [&](int64_t) { return __real_shutdown(descriptor, how); });
}

int __wrap_lstat(const char* path, struct stat* status) {
  return intercept([&] { return detailed("lstat", path, -1); }, 0,
                   [&](int64_t) { return __real_lstat(path, status); });
}

int __wrap_unlink(const char* path) {
  return intercept([&] { return detailed("unlink", path, -1); }, 0,
                   [&](int64_t) { return __real_unlink(path); });
}

int __wrap_usleep(useconds_t time) {
  return intercept([&] { return detailed("usleep", std::to_string(time), -1); }, 0,
                   [&](int64_t) { return usleepByClock(time); });
}

void __wrap_tzset() {
  intercept([] { return plain("tzset", -1); }, 0,
            [](int64_t) {
              __real_tzset();
              return 0;
            });
}

void* __wrap_malloc(size_t size) {
  if (!countAllocation()) return countBlock(__real_malloc(size));
  errno = ENOMEM;
  return nullptr;
}

void* __wrap_calloc(size_t count, size_t size) {
  if (!countAllocation()) return countBlock(__real_calloc(count, size));
  errno = ENOMEM;
  return nullptr;
}

void* __wrap_realloc(void* block, size_t size) {
  if (!countAllocation()) {
    void* const moved = __real_realloc(block, size);
    return block == nullptr ? countBlock(moved) : moved;
  }
  errno = ENOMEM;
  return nullptr;
}

void __wrap_free(void* block) {
  if (block != nullptr) liveBlockCount.fetch_sub(1, std::memory_order_relaxed);
  __real_free(block);
}

// operator new. Where the operator below replaces it, allocations are counted there.
void* wrappedNew(size_t size) asm("__wrap_" OPERATOR_NEW);
void* wrappedNew(size_t size) {
  if (!hasOwnNew && countAllocation()) throw std::bad_alloc();
  return realNew(size);
}

}  // extern "C"

}  // namespace support

#ifndef HAS_SANITIZER
// For the whole process, the C++ library included. The sanitizers need their own.
void* operator new(size_t size) {
  void* const block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, size_t) noexcept { std::free(block); }
#endif
