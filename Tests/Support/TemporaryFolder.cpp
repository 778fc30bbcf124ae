#include "Support/TemporaryFolder.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace support {

TemporaryFolder::TemporaryFolder() {
  char name[] = "/tmp/zephalio-XXXXXX";
  if (::mkdtemp(name) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp");
  }
  _path = name;
  ::chmod(name, 0777);
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(_path, ignored);
}

}  // namespace support
