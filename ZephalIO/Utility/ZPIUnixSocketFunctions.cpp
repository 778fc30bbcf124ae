#include "Utility/ZPIUnixSocketFunctions.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

// Calls connect or bind with the address of a path.
template <class Call>
int callWithAddress(Call call, int fd, const std::string& path) {
  // On Linux an empty name is an abstract one, and any process may be listening on it.
  if (path.empty()) {
    errno = ENOENT;
    return -1;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  // Truncated silently, with room for the terminating zero.
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  return call(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

void closeKeepingErrno(int fd) {
  const int number = errno;
  ::close(fd);
  errno = number;
}

int passive_unix__internal(const std::string& path, int* saved_errno) {
  const int fd = ZPIMakeSocket(AF_UNIX, ZPISocketOwner::kUser);
  const int32_t on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
  const int result = callWithAddress(::bind, fd, path);
  if (saved_errno != nullptr) *saved_errno = errno;
  if (result != 0) {
    closeKeepingErrno(fd);
    return -1;
  }
  ::listen(fd, kZPIBacklog);
  return fd;
}

bool isSocketFile(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && (status.st_mode & S_IFMT) == S_IFSOCK;
}

bool somebodyListens(const std::string& path) {
  const int probe = ZPIMakeSocket(AF_UNIX, ZPISocketOwner::kLibrary);
  const bool isConnected = callWithAddress(ZPIConnect, probe, path) == 0;
  closeKeepingErrno(probe);
  return isConnected;
}

}  // namespace

int passive_unix(const std::string& path) {
  int saved_errno = 0;
  int result = passive_unix__internal(path, &saved_errno);
  if (result >= 0) return result;
  if (isSocketFile(path) && !somebodyListens(path)) {
    ::unlink(path.c_str());
    result = passive_unix__internal(path, &saved_errno);
  }
  if (saved_errno == EADDRINUSE && result < 0) {
    std::printf("Warning : sock_path %s is busy (errno=%d)\n", path.c_str(), EADDRINUSE);
    return result;
  }
  if (result < 0 && errno != EADDRINUSE) {
    std::printf("Warning : sock_path %s is restricted (errno=%d)\n", path.c_str(), saved_errno);
    return -1;
  }
  return result;
}

int active_unix(const std::string& path, ZPISocketOwner owner) {
  int fd = ZPIMakeSocket(AF_UNIX, owner);
  if (callWithAddress(ZPIConnect, fd, path) != 0) {
    closeKeepingErrno(fd);
    fd = -1;
  }
  const int number = errno;
  ZPIAvoidSigpipe(fd, owner);
  errno = number;
  return fd;
}
