// The calls that only the tests of faults intercept, beside those of Support/SystemCalls.

#include "Faults/FurtherCalls.h"

#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "Support/Interception.h"
#include "Support/TestClock.h"

namespace support {

using interception::detailed;
using interception::intercept;
using interception::plain;

// The linker's names for the calls themselves.
extern "C" {
int __real_getsockopt(int, int, int, void*, socklen_t*);
int __real_stat(const char*, struct stat*);
int __real_eventfd(unsigned, int);
int __real_eventfd_read(int, eventfd_t*);
int __real_eventfd_write(int, eventfd_t);
int __real_getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**);
hostent* __real_gethostbyname(const char*);
}

namespace {

// The machine may know no name at all.
const char* addressOf(const char* host) { return kHostName == host ? "127.0.0.1" : host; }

bool isNumericOnly(const addrinfo* hints) {
  return hints != nullptr && (hints->ai_flags & AI_NUMERICHOST) != 0;
}

}  // namespace

// The functions to which the linker directs the calls.
extern "C" {

int __wrap_poll(pollfd* entries, nfds_t count, int milliseconds) {
  return intercept([&] { return plain("poll", entries[0].fd, milliseconds); }, 0,
                   [&](int64_t) { return pollByClock(entries, count, milliseconds); });
}

int __wrap_getsockopt(int descriptor, int level, int option, void* value, socklen_t* length) {
  const char* const detail = option == SO_ERROR ? "SO_ERROR" : "SO_TYPE";
  return intercept(
      [&] { return detailed("getsockopt", detail, descriptor); }, 0,
      [&](int64_t) { return __real_getsockopt(descriptor, level, option, value, length); });
}

int __wrap_stat(const char* path, struct stat* status) {
  return intercept([&] { return detailed("stat", path, -1); }, 0,
                   [&](int64_t) { return __real_stat(path, status); });
}

int __wrap_eventfd(unsigned value, int flags) {
  return intercept([] { return plain("eventfd", -1); }, 0,
                   [&](int64_t) { return __real_eventfd(value, flags); });
}

int __wrap_eventfd_read(int descriptor, eventfd_t* value) {
  return intercept([&] { return plain("eventfd_read", descriptor); }, 0,
                   [&](int64_t) { return __real_eventfd_read(descriptor, value); });
}

int __wrap_eventfd_write(int descriptor, eventfd_t value) {
  return intercept([&] { return plain("eventfd_write", descriptor); }, 0,
                   [&](int64_t) { return __real_eventfd_write(descriptor, value); });
}

// Its failures are results of its own, which the plan has as the errno.
int __wrap_getaddrinfo(const char* host, const char* service, const addrinfo* hints,
                       addrinfo** list) {
  int result = 0;
  const char* const asked = isNumericOnly(hints) ? host : addressOf(host);
  const int outcome = intercept([&] { return detailed("getaddrinfo", host, -1); }, 0,
                                [&](int64_t) {
                                  result = __real_getaddrinfo(asked, service, hints, list);
                                  return 0;
                                });
  if (outcome == 0) return result;
  result = errno;
  errno = EMFILE;  // what EAI_SYSTEM refers to
  return result;
}

// Its failures are in h_errno, which the plan has as the errno.
hostent* __wrap_gethostbyname(const char* host) {
  hostent* found = nullptr;
  const int outcome = intercept([&] { return detailed("gethostbyname", host, -1); }, 0,
                                [&](int64_t) {
                                  found = __real_gethostbyname(addressOf(host));
                                  return 0;
                                });
  if (outcome == 0) return found;
  h_errno = errno;
  return nullptr;
}

}  // extern "C"

#ifdef __GLIBCXX__

// How a std::thread starts, with the linker's names; its call of pthread_create is in the C++
// library. That of libc++ is in a header, where pthread_create itself is intercepted.
using ThreadState = std::unique_ptr<std::thread::_State>;
void realStart(std::thread*, ThreadState, void (*)()) asm(
    "__real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE");
void startOrFail(std::thread*, ThreadState, void (*)()) asm(
    "__wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE");

void startOrFail(std::thread* thread, ThreadState state, void (*depend)()) {
  const int number = countThread();
  if (number != 0) throw std::system_error(number, std::generic_category());
  realStart(thread, std::move(state), depend);
}

#endif

}  // namespace support
