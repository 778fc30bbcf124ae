#pragma once

#include <string>
#include <string_view>

namespace support {

/// A test's own folder, removed at the end with everything in it. Its path is short enough for a
/// unix socket, and every user can enter it.
class TemporaryFolder {
 public:
  TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();

  const std::string& path() const { return _path; }
  /// The path of a file in the folder.
  std::string pathOf(std::string_view name) const { return _path + "/" + std::string(name); }

 private:
  std::string _path;
};

}  // namespace support
