#include "Faults/FaultTable.h"

#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace support {

namespace {

constexpr int kErrno = Effect::kErrno;
constexpr int kEnd = Effect::kEnd;

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
      {"gethostbyname", Effect::kResolver, "", true},
      {"connect AF_INET", kErrno, "", true, {EINTR}},
      {"connect AF_UNIX", kErrno, "", true, {EINTR}},
      {"select", 5, "Select failed with error ", false, {EINTR, EAGAIN}},
      {"read", 5, "Read failed with error ", false, {EAGAIN}},
      {"send", 5, "Write failed with ", false, {ENOTSOCK}},
      {"write", 5, "Write failed with "},
      {"close", 4, "Error closing port - "},
  };
  return table;
}

// What listens prints the reason.
const std::vector<Effect>& serverEffects() {
  static const std::vector<Effect> table = {
      {"socket", 7, "Failed to start server", true},
      {"bind", 7, "Failed to start server", true},
      {"lstat", 7, "", true},
      {"unlink", 7, "", true},
  };
  return table;
}

// A console opens a line or says why not; later the line ends. What its thread meets is learned of
// from the next operation, if there is one. What happens to a log is no reason to stop.
const std::vector<Effect>& consoleEffects() {
  static const std::vector<Effect> table = {
      {"open log", kErrno, "", false, {EINTR, EWOULDBLOCK}},
      {"fcntl log", kErrno},
      {"eventfd", kErrno},
      {"socket", kErrno},
      {"connect", kErrno, "", false, {EAGAIN, EINPROGRESS, EINTR}},
      {"getsockopt", kErrno},
      {"getaddrinfo", Effect::kResolver, "", true},
      {"open", kErrno},
      {"open", 4, "Error opening serial port ", true},
      {"ioctl TIOCEXCL", 4, "Error setting TIOCEXCL on "},
      {"fcntl F_SETFL 0", 4, "Error clearing O_NONBLOCK "},
      {"tcgetattr", 4, "Error getting tty attributes "},
      {"tcsetattr", 4, "Error setting tty attributes "},
      {"ioctl TCGETS2", 4, "Error "},
      {"ioctl TCSETS2", 4, "Error "},
      {"read", kEnd, "", true, {EAGAIN, EINTR}},
      {"send", kEnd, "", true, {EAGAIN, EINTR}},
      {"write", kEnd, "", true, {EAGAIN, EINTR}},
  };
  return table;
}

// A device cannot be started, or cannot come back.
const std::vector<Effect>& simulatorEffects() {
  static const std::vector<Effect> table = {
      {"posix_openpt", kErrno},
      {"grantpt", kErrno},
      {"unlockpt", kErrno},
      {"ptsname_r", kErrno},
      {"open", kErrno},
      {"tcgetattr", kErrno},
      {"tcsetattr", kErrno},
      {"fcntl", kErrno},
      {"symlink", kErrno},
      {"socket", kErrno},
      {"bind", kErrno},
      {"listen", kErrno},
      {"chmod", kErrno},
      {"mkdtemp", kErrno},
      {"getsockname", kErrno},
      {"pipe2", kErrno},
      {"setsockopt SOL_SOCKET", kErrno},
  };
  return table;
}

const std::vector<Effect>& effectsFor(Trial::Kind kind) {
  if (kind == Trial::Kind::kServer) return serverEffects();
  if (kind == Trial::Kind::kConsole) return consoleEffects();
  return kind == Trial::Kind::kSimulator ? simulatorEffects() : effects();
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
      // Errors that the page has for openat(2) and the like are left out here and below.
      {"close", {EBADF, EDQUOT, EINTR, EIO, ENOSPC}},
      // With what recv(2) and tcp(7) add for sockets.
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
      {"poll", {EFAULT, EINTR, EINVAL, ENOMEM}},
      {"eventfd", {EINVAL, EMFILE, ENFILE, ENODEV, ENOMEM}},
      // Those of write(2) and read(2) that an eventfd can have, made and then said to have failed.
      {"eventfd_write", {EAGAIN, EINTR, EINVAL}},
      {"eventfd_read", {EAGAIN, EINTR, EINVAL}},
      {"ioctl", {EBADF, EFAULT, EINVAL, ENOTTY}},
      {"fcntl",
       {EACCES, EAGAIN, EBADF, EBUSY, EDEADLK, EFAULT, EINTR, EINVAL, EMFILE, ENOLCK, ENOTDIR,
        EPERM}},
      {"flock", {EBADF, EINTR, EINVAL, ENOLCK, EWOULDBLOCK}},
      // termios(3) names none; these are what a terminal can answer.
      {"tcgetattr", {EBADF, EINVAL, EIO, ENOTTY}},
      {"tcsetattr", {EBADF, EINTR, EINVAL, EIO, ENOTTY}},
      {"cfsetspeed", {EINVAL}},
      {"socket", {EACCES, EAFNOSUPPORT, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTONOSUPPORT}},
      {"setsockopt", {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK}},
      {"getsockopt", {EBADF, EFAULT, EINVAL, ENOPROTOOPT, ENOTSOCK}},
      {"getaddrinfo",
       {EAI_ADDRFAMILY, EAI_AGAIN, EAI_BADFLAGS, EAI_FAIL, EAI_FAMILY, EAI_MEMORY, EAI_NODATA,
        EAI_NONAME, EAI_SERVICE, EAI_SOCKTYPE, EAI_SYSTEM}},
      {"gethostbyname", {HOST_NOT_FOUND, NO_DATA, NO_RECOVERY, TRY_AGAIN}},
      {"connect",
       {EACCES, EADDRINUSE, EADDRNOTAVAIL, EAFNOSUPPORT, EAGAIN, EALREADY, EBADF, ECONNREFUSED,
        EFAULT, EINPROGRESS, EINTR, EISCONN, ENETUNREACH, ENOTSOCK, EPERM, EPROTOTYPE, ETIMEDOUT}},
      {"bind",
       {EACCES, EADDRINUSE, EADDRNOTAVAIL, EBADF, EFAULT, EINVAL, ELOOP, ENAMETOOLONG, ENOENT,
        ENOMEM, ENOTDIR, ENOTSOCK, EROFS}},
      {"getsockname", {EBADF, EFAULT, EINVAL, ENOBUFS, ENOTSOCK}},
      {"pipe2", {EFAULT, EINVAL, EMFILE, ENFILE, ENOPKG}},
      // posix_openpt(3) and mkdtemp(3) refer to open(2) and mkdir(2) for most of theirs.
      {"posix_openpt", {EACCES, EAGAIN, EMFILE, ENFILE, ENOENT, ENOSPC}},
      {"grantpt", {EACCES, EBADF, EINVAL}},
      {"unlockpt", {EBADF, EINVAL}},
      {"ptsname_r", {EINVAL, ENOTTY, ERANGE}},
      {"mkdtemp", {EACCES, EDQUOT, EINVAL, EMLINK, ENOENT, ENOMEM, ENOSPC, ENOTDIR, EROFS}},
      {"chmod", {EACCES, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS}},
      {"symlink",
       {EACCES, EDQUOT, EEXIST, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOSPC, ENOTDIR,
        EPERM, EROFS}},
      {"rmdir",
       {EACCES, EBUSY, EFAULT, EINVAL, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, ENOTEMPTY,
        EPERM, EROFS}},
      {"listen", {EADDRINUSE, EBADF, ENOTSOCK, EOPNOTSUPP}},
      {"accept4",
       {EAGAIN,       EBADF,       ECONNABORTED, EFAULT,          EINTR,           EINVAL,
        EMFILE,       ENFILE,      ENOBUFS,      ENOMEM,          ENOTSOCK,        EOPNOTSUPP,
        EPERM,        EPROTO,      ENETDOWN,     ENOPROTOOPT,     EHOSTDOWN,       ENONET,
        EHOSTUNREACH, ENETUNREACH, ENOSR,        ESOCKTNOSUPPORT, EPROTONOSUPPORT, ETIMEDOUT}},
      {"shutdown", {EBADF, EINVAL, ENOTCONN, ENOTSOCK}},
      {"stat", {EACCES, EBADF, EFAULT, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW}},
      {"lstat", {EACCES, EBADF, EFAULT, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW}},
      {"unlink",
       {EACCES, EBUSY, EFAULT, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM,
        EROFS}},
      {"usleep", {EINTR, EINVAL}},
  };
  return table;
}

// Close frees the descriptor even if it fails, a server must not be left in accept, and an event
// is only not added to a full counter. A connect that a signal interrupts goes on, as does one
// that is in progress; a blocking one of a unix socket has not begun. What a simulated device
// writes to wake its thread always arrives, and what it removes is removed.
bool isMadeAnyway(const Fault& fault, const std::string& scenario) {
  if (fault.call == "close" || fault.call == "shutdown") return true;
  if (fault.call.starts_with("eventfd_")) return true;
  if (scenario.starts_with("Simulator") &&
      (fault.call == "write" || fault.call == "unlink" || fault.call == "rmdir")) {
    return true;
  }
  if (fault.call != "connect") return false;
  if (scenario.starts_with("Console")) return fault.error == EINTR || fault.error == EINPROGRESS;
  return fault.error == EINTR && scenario.find("TCP") != std::string::npos;
}

std::vector<Effect> effectsOf(const std::vector<SystemCall>& calls, size_t index,
                              Trial::Kind kind) {
  const std::vector<Effect>& all = effectsFor(kind);
  const std::string site = siteOf(calls, index);
  const bool isLog = site.ends_with(" log");
  std::vector<Effect> found;
  std::copy_if(all.begin(), all.end(), std::back_inserter(found), [&](const Effect& e) {
    return site == e.site || (!isLog && site.starts_with(std::string(e.site) + " "));
  });
  return found;
}

}  // namespace support
