#include "Faults/FaultTable.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace support {

namespace {

// The domain of log files has the errno as its code.
constexpr int kErrno = -1;

const std::vector<Effect>& effects() {
  static const std::vector<Effect> table = {
      {"open log", kErrno, "", true, {EINTR, EWOULDBLOCK}},
      {"fcntl log", kErrno, "", true},
      {"open", 4, "Error opening serial port "},
      {"ioctl TIOCEXCL", 4, "Error setting TIOCEXCL on "},
      {"fcntl F_SETFL 0", 4, "Error clearing O_NONBLOCK "},
      {"tcgetattr", 4, "Error getting tty attributes "},
      {"tcsetattr", 4, "Error setting tty attributes "},
      {"ioctl TCGETS2", 4, "Error "},
      {"ioctl TCSETS2", 4, "Error "},
      {"socket", kErrno, "", true},
      {"connect AF_INET", kErrno, "", true, {EINTR}},
      {"connect AF_UNIX", kErrno, "", true, {EINTR}},
      {"select", 5, "Select failed with error ", false, {EINTR, EAGAIN}},
      {"read", 5, "Read failed with error ", false, {EAGAIN}},
      {"send", 5, "Write failed with ", false, {ENOTSOCK}},
      {"write", 5, "Write failed with "},
      {"close", 4, "Error closing port - "},
      {"socket", 7, "Failed to start server", true},
      {"bind", 7, "Failed to start server", true},
      {"lstat", 7, "", true},
      {"unlink", 7, "", true},
  };
  return table;
}

// Whether the descriptor of this call is that of a log file.
bool isOfLog(const std::vector<SystemCall>& calls, size_t index) {
  const int descriptor = calls[index].descriptor;
  for (size_t i = index; i-- > 0;) {
    if (calls[i].name == "socket" && calls[i].result == descriptor) return false;
    if (calls[i].name != "open" || calls[i].result != descriptor) continue;
    return calls[i].text.find("O_APPEND") != std::string::npos;
  }
  return false;
}

std::string siteOf(const std::vector<SystemCall>& calls, size_t index) {
  const SystemCall& call = calls[index];
  const bool isLog = call.text.find("O_APPEND") != std::string::npos ||
                     (call.descriptor != -1 && isOfLog(calls, index));
  return isLog ? call.name + " log" : call.text;
}

}  // namespace

const std::vector<FaultRow>& faultTable() {
  static const std::vector<FaultRow> table = {
      {"open",
       {EACCES,       EBUSY,  EDQUOT, EEXIST,  EFAULT,  EFBIG,     EINTR,      EINVAL, EISDIR,
        ELOOP,        EMFILE, ENFILE, ENODEV,  ENOENT,  ENOMEM,    ENOSPC,     ENXIO,  ENOTDIR,
        ENAMETOOLONG, EPERM,  EROFS,  ETXTBSY, ENOTSUP, EOVERFLOW, EWOULDBLOCK}},
      {"close", {EBADF, EDQUOT, EINTR, EIO, ENOSPC}},
      {"read",
       {EAGAIN, EBADF, ECONNREFUSED, ECONNRESET, EFAULT, EINTR, EINVAL, EIO, EISDIR, ENOMEM,
        ENOTCONN, ETIMEDOUT}},
      {"write",
       {EAGAIN, EBADF, EDESTADDRREQ, EDQUOT, EFAULT, EFBIG, EINTR, EINVAL, EIO, ENOSPC, EPERM,
        EPIPE}},
      {"send",
       {EACCES, EAGAIN, EALREADY, EBADF, ECONNRESET, EDESTADDRREQ, EFAULT, EINTR, EINVAL, EISCONN,
        EMSGSIZE, ENOBUFS, ENOMEM, ENOTCONN, ENOTSOCK, EOPNOTSUPP, EPIPE}},
      {"select", {EBADF, EINTR, EINVAL, ENOMEM}},
      {"ioctl", {EBADF, EFAULT, EINVAL, ENOTTY}},
      {"fcntl",
       {EACCES, EAGAIN, EBADF, EBUSY, EDEADLK, EFAULT, EINTR, EINVAL, EMFILE, ENOLCK, ENOTDIR,
        EPERM}},
      {"flock", {EBADF, EINTR, EINVAL, ENOLCK, EWOULDBLOCK}},
      {"tcgetattr", {EBADF, EINVAL, EIO, ENOTTY}},
      {"tcsetattr", {EBADF, EINTR, EINVAL, EIO, ENOTTY}},
      {"cfsetspeed", {EINVAL}},
      {"socket", {EACCES, EAFNOSUPPORT, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTONOSUPPORT}},
      {"setsockopt", {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK}},
      {"connect",
       {EACCES, EADDRINUSE, EADDRNOTAVAIL, EAFNOSUPPORT, EAGAIN, EALREADY, EBADF, ECONNREFUSED,
        EFAULT, EINPROGRESS, EINTR, EISCONN, ENETUNREACH, ENOTSOCK, EPERM, EPROTOTYPE, ETIMEDOUT}},
      {"bind",
       {EACCES, EADDRINUSE, EADDRNOTAVAIL, EBADF, EFAULT, EINVAL, ELOOP, ENAMETOOLONG, ENOENT,
        ENOMEM, ENOTDIR, ENOTSOCK, EROFS}},
      {"listen", {EADDRINUSE, EBADF, ENOTSOCK, EOPNOTSUPP}},
      {"accept4",
       {EAGAIN, EBADF, ECONNABORTED, EFAULT, EINTR, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM,
        ENOTSOCK, EOPNOTSUPP, EPERM, EPROTO}},
      {"shutdown", {EBADF, EINVAL, ENOTCONN, ENOTSOCK}},
      {"lstat", {EACCES, EBADF, EFAULT, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW}},
      {"unlink",
       {EACCES, EBUSY, EFAULT, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM,
        EROFS}},
      {"usleep", {EINTR, EINVAL}},
  };
  return table;
}

std::vector<Effect> effectsOf(const std::vector<SystemCall>& calls, size_t index) {
  const std::string site = siteOf(calls, index);
  const bool isLog = site.ends_with(" log");
  std::vector<Effect> found;
  std::copy_if(effects().begin(), effects().end(), std::back_inserter(found), [&](const Effect& e) {
    return site == e.site || (!isLog && site.starts_with(std::string(e.site) + " "));
  });
  return found;
}

}  // namespace support
