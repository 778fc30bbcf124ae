#include "Support/Files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>
#include <utility>

namespace support {

std::string contentsOfFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream all;
  all << file.rdbuf();
  return std::move(all).str();
}

void writeFile(const std::string& path, std::string_view contents) {
  std::ofstream(path, std::ios::binary) << contents;
}

mode_t permissionsOfFile(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

}  // namespace support
