#include "Crashes/SmallDisk.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

#include "Support/CheckedCalls.h"
#include "Support/Files.h"

namespace support {
namespace {

// Root in a namespace of users: of ours only.
bool becomeRoot() {
  const std::string user = "0 " + std::to_string(::geteuid()) + " 1";
  const std::string group = "0 " + std::to_string(::getegid()) + " 1";
  if (::unshare(CLONE_NEWUSER) != 0) return false;
  writeFile("/proc/self/setgroups", "deny");
  writeFile("/proc/self/uid_map", user);
  writeFile("/proc/self/gid_map", group);
  return ::geteuid() == 0;
}

bool mountDisk(const std::string& folder, const std::string& options) {
  std::filesystem::create_directory(folder);
  const bool isRoot = ::geteuid() == 0;
  if ((isRoot || becomeRoot()) && ::unshare(CLONE_NEWNS) == 0) {
    // In a chroot "/" may be no mount and refuse.
    ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    if (::mount("tmpfs", folder.c_str(), "tmpfs", 0, options.c_str()) == 0) return true;
  }
  if (!isRoot) return false;
  throw std::system_error(errno, std::generic_category(), "mount");
}

size_t largestFileIn(const std::string& folder) {
  size_t largest = 0;
  for (const auto& file : std::filesystem::directory_iterator(folder)) {
    if (file.is_regular_file()) largest = std::max(largest, static_cast<size_t>(file.file_size()));
  }
  return largest;
}

}  // namespace

SmallDisk::SmallDisk(std::string folder, const std::string& options)
    : _folder(std::move(folder)), _isReal(mountDisk(_folder, options)) {
  ::getrlimit(RLIMIT_FSIZE, &_limit);
}

SmallDisk::~SmallDisk() {
  if (_isReal) detach();
  ::setrlimit(RLIMIT_FSIZE, &_limit);
}

void SmallDisk::fill() {
  if (!_isReal) {
    const rlimit limit{largestFileIn(_folder) + 100, _limit.rlim_max};
    checked(::setrlimit(RLIMIT_FSIZE, &limit), "setrlimit");
    return;
  }
  const int file = checked(::open(ballast().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), "open");
  const std::string page(4096, 'x');
  while (::write(file, page.data(), page.size()) > 0) continue;
  ::close(file);
}

void SmallDisk::empty() {
  if (_isReal) {
    std::filesystem::remove(ballast());
  } else {
    checked(::setrlimit(RLIMIT_FSIZE, &_limit), "setrlimit");
  }
}

void SmallDisk::setReadOnly(bool isReadOnly) {
  const unsigned long flags = MS_REMOUNT | (isReadOnly ? MS_RDONLY : 0);
  checked(::mount("tmpfs", _folder.c_str(), "tmpfs", flags, nullptr), "mount");
}

void SmallDisk::detach() { ::umount2(_folder.c_str(), MNT_DETACH); }

}  // namespace support
