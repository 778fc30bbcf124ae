#include "Support/TemporaryFolder.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace support {

TemporaryFolder::TemporaryFolder() {
  _path = std::filesystem::temp_directory_path().string() + "/zephalio-XXXXXX";
  if (::mkdtemp(_path.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp");
  }
  ::chmod(_path.c_str(), 0777);
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(_path, ignored);
}

}  // namespace support
