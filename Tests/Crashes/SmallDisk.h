#pragma once

#include <sys/resource.h>

#include <string>

namespace support {

/// A small disk at a new folder, for a process that runs aside. It is a tmpfs of its own, which
/// nobody else sees. For an ordinary user that takes a user namespace; where the system refuses
/// one, a limit to the size of files is a full disk to whoever writes to them.
class SmallDisk {
 public:
  /// `options` are those of mount(8). Root needs a real one: throws a std::system_error if the
  /// system refuses it.
  explicit SmallDisk(std::string folder, const std::string& options = "size=512k");
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;
  ~SmallDisk();

  /// Whether it is a disk, and no limit.
  bool isReal() const { return _isReal; }
  /// Leaves no room for another page.
  void fill();
  /// Makes room again.
  void empty();
  /// Lets a real disk be read only, or not.
  void setReadOnly(bool isReadOnly);
  /// Takes a real disk away; files that are open stay open.
  void detach();

 private:
  std::string ballast() const { return _folder + "/ballast"; }

  const std::string _folder;
  const bool _isReal;
  rlimit _limit{};
};

}  // namespace support
