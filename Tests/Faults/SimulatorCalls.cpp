// The calls that only a simulated device makes.

#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Support/Interception.h"

namespace support {

using interception::detailed;
using interception::intercept;
using interception::plain;

// The linker's names for the calls themselves.
extern "C" {
int __real_pipe2(int*, int);
int __real_posix_openpt(int);
int __real_grantpt(int);
int __real_unlockpt(int);
int __real_ptsname_r(int, char*, size_t);
char* __real_mkdtemp(char*);
int __real_chmod(const char*, mode_t);
int __real_symlink(const char*, const char*);
int __real_rmdir(const char*);
int __real_getsockname(int, sockaddr*, socklen_t*);
}

// The functions to which the linker directs the calls.
extern "C" {

int __wrap_pipe2(int* ends, int flags) {
  return intercept([] { return plain("pipe2", -1); }, 0,
                   [&](int64_t) { return __real_pipe2(ends, flags); });
}

int __wrap_posix_openpt(int flags) {
  return intercept([] { return plain("posix_openpt", -1); }, 0,
                   [&](int64_t) { return __real_posix_openpt(flags); });
}

int __wrap_grantpt(int descriptor) {
  return intercept([&] { return plain("grantpt", descriptor); }, 0,
                   [&](int64_t) { return __real_grantpt(descriptor); });
}

int __wrap_unlockpt(int descriptor) {
  return intercept([&] { return plain("unlockpt", descriptor); }, 0,
                   [&](int64_t) { return __real_unlockpt(descriptor); });
}

// Its result is the error.
int __wrap_ptsname_r(int descriptor, char* name, size_t size) {
  int result = 0;
  const int outcome = intercept([&] { return plain("ptsname_r", descriptor); }, 0,
                                [&](int64_t) {
                                  result = __real_ptsname_r(descriptor, name, size);
                                  return 0;
                                });
  return outcome == 0 ? result : errno;
}

char* __wrap_mkdtemp(char* name) {
  char* made = nullptr;
  const int outcome = intercept([&] { return plain("mkdtemp", -1); }, 0,
                                [&](int64_t) {
                                  made = __real_mkdtemp(name);
                                  return 0;
                                });
  return outcome == 0 ? made : nullptr;
}

int __wrap_chmod(const char* path, mode_t mode) {
  return intercept([&] { return detailed("chmod", path, -1); }, 0,
                   [&](int64_t) { return __real_chmod(path, mode); });
}

int __wrap_symlink(const char* target, const char* path) {
  return intercept([&] { return detailed("symlink", path, -1); }, 0,
                   [&](int64_t) { return __real_symlink(target, path); });
}

int __wrap_rmdir(const char* path) {
  return intercept([&] { return detailed("rmdir", path, -1); }, 0,
                   [&](int64_t) { return __real_rmdir(path); });
}

int __wrap_getsockname(int descriptor, sockaddr* address, socklen_t* length) {
  return intercept([&] { return plain("getsockname", descriptor); }, 0,
                   [&](int64_t) { return __real_getsockname(descriptor, address, length); });
}

}  // extern "C"

}  // namespace support
