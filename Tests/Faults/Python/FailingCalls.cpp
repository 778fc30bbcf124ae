// Makes one call of the Python module fail, in an interpreter that loads this library before all
// others (LD_PRELOAD). Only calls from the module and from the C++ library count: the interpreter
// makes the same calls for its own needs.

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace {

struct Range {
  uintptr_t begin;
  uintptr_t end;
};

Range ranges[64];
size_t rangeCount = 0;
const char* chosenCall = "";
int chosenError = 0;
std::atomic<bool> isArmed{false};
std::atomic<size_t> callCount{0};
size_t chosenCount = 0;

bool isOurs(const char* file) {
  return std::strstr(file, "/_zephal.") != nullptr || std::strstr(file, "/libZephal") != nullptr ||
         std::strstr(file, "/libstdc++.so") != nullptr;
}

int addRanges(dl_phdr_info* info, size_t, void*) {
  if (!isOurs(info->dlpi_name)) return 0;
  for (int i = 0; i < info->dlpi_phnum && rangeCount < std::size(ranges); ++i) {
    const auto& part = info->dlpi_phdr[i];
    if (part.p_type != PT_LOAD || (part.p_flags & PF_X) == 0) continue;
    const uintptr_t begin = info->dlpi_addr + part.p_vaddr;
    ranges[rangeCount++] = {begin, begin + part.p_memsz};
  }
  return 0;
}

// Counts the call; true if it must fail.
bool mustFail(const char* call, const void* caller) {
  if (!isArmed.load(std::memory_order_acquire) || std::strcmp(call, chosenCall) != 0) return false;
  const auto address = reinterpret_cast<uintptr_t>(caller);
  for (size_t i = 0; i < rangeCount; ++i) {
    if (address < ranges[i].begin || address >= ranges[i].end) continue;
    if (++callCount != chosenCount) return false;
    errno = chosenError;
    return true;
  }
  return false;
}

template <class Function>
Function* next(const char* name, Function*) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

// The call was made; it is only said to have failed.
int answerAfter(const char* call, const void* caller, int result) {
  return mustFail(call, caller) ? -1 : result;
}

}  // namespace

extern "C" {

// glibc's own names, for which nothing must be looked up, since that needs memory.
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);

// The number-th call of the function fails from now on; none for 0.
void zephal_arm(const char* call, size_t number, int error) {
  if (rangeCount == 0) ::dl_iterate_phdr(addRanges, nullptr);
  chosenCall = call;
  chosenCount = number;
  chosenError = error;
  callCount = 0;
  isArmed.store(true, std::memory_order_release);
}

// How often it has been called.
size_t zephal_disarm() {
  isArmed.store(false, std::memory_order_release);
  return callCount;
}

void* malloc(size_t size) noexcept {
  return mustFail("malloc", __builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) noexcept {
  return mustFail("malloc", __builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* block, size_t size) noexcept {
  return mustFail("malloc", __builtin_return_address(0)) ? nullptr : __libc_realloc(block, size);
}

ssize_t read(int descriptor, void* buffer, size_t size) {
  static const auto real = next("read", &::read);
  return mustFail("read", __builtin_return_address(0)) ? -1 : real(descriptor, buffer, size);
}

ssize_t write(int descriptor, const void* bytes, size_t size) {
  static const auto real = next("write", &::write);
  return mustFail("write", __builtin_return_address(0)) ? -1 : real(descriptor, bytes, size);
}

ssize_t send(int descriptor, const void* bytes, size_t size, int flags) {
  static const auto real = next("send", &::send);
  return mustFail("send", __builtin_return_address(0)) ? -1 : real(descriptor, bytes, size, flags);
}

int poll(pollfd* entries, nfds_t count, int time) {
  static const auto real = next("poll", &::poll);
  return mustFail("poll", __builtin_return_address(0)) ? -1 : real(entries, count, time);
}

int open(const char* path, int flags, ...) {
  static const auto real = next("open", &::open);
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return mustFail("open", __builtin_return_address(0)) ? -1 : real(path, flags, mode);
}

// The descriptor is free even if it fails.
int close(int descriptor) {
  static const auto real = next("close", &::close);
  return answerAfter("close", __builtin_return_address(0), real(descriptor));
}

int fcntl(int descriptor, int command, ...) {
  static const auto real = next("fcntl", &::fcntl);
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return mustFail("fcntl", __builtin_return_address(0)) ? -1 : real(descriptor, command, argument);
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
  using Ioctl = int(int, unsigned long, void*);
  static const auto real = next<Ioctl>("ioctl", nullptr);
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return mustFail("ioctl", __builtin_return_address(0)) ? -1 : real(descriptor, request, argument);
}

int tcgetattr(int descriptor, termios* attributes) noexcept {
  static const auto real = next("tcgetattr", &::tcgetattr);
  return mustFail("tcgetattr", __builtin_return_address(0)) ? -1 : real(descriptor, attributes);
}

int tcsetattr(int descriptor, int when, const termios* attributes) noexcept {
  static const auto real = next("tcsetattr", &::tcsetattr);
  if (mustFail("tcsetattr", __builtin_return_address(0))) return -1;
  return real(descriptor, when, attributes);
}

int socket(int family, int type, int protocol) noexcept {
  static const auto real = next("socket", &::socket);
  return mustFail("socket", __builtin_return_address(0)) ? -1 : real(family, type, protocol);
}

int connect(int descriptor, const sockaddr* address, socklen_t length) {
  static const auto real = next("connect", &::connect);
  return mustFail("connect", __builtin_return_address(0)) ? -1 : real(descriptor, address, length);
}

int setsockopt(int descriptor, int level, int option, const void* value,
               socklen_t length) noexcept {
  static const auto real = next("setsockopt", &::setsockopt);
  if (mustFail("setsockopt", __builtin_return_address(0))) return -1;
  return real(descriptor, level, option, value, length);
}

int getsockopt(int descriptor, int level, int option, void* value, socklen_t* length) noexcept {
  static const auto real = next("getsockopt", &::getsockopt);
  if (mustFail("getsockopt", __builtin_return_address(0))) return -1;
  return real(descriptor, level, option, value, length);
}

int eventfd(unsigned value, int flags) noexcept {
  static const auto real = next("eventfd", &::eventfd);
  return mustFail("eventfd", __builtin_return_address(0)) ? -1 : real(value, flags);
}

// An event is only not added to a full counter.
int eventfd_write(int descriptor, eventfd_t value) {
  static const auto real = next("eventfd_write", &::eventfd_write);
  return answerAfter("eventfd_write", __builtin_return_address(0), real(descriptor, value));
}

int flock(int descriptor, int operation) noexcept {
  using Flock = int(int, int);
  static const auto real = next<Flock>("flock", nullptr);
  return mustFail("flock", __builtin_return_address(0)) ? -1 : real(descriptor, operation);
}

// Its result is the error.
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept {
  static const auto real = next("pthread_create", &::pthread_create);
  if (mustFail("pthread_create", __builtin_return_address(0))) return chosenError;
  return real(thread, attributes, start, argument);
}

}  // extern "C"
