#include "Support/ProcessThreads.h"

#include <filesystem>
#include <fstream>
#include <system_error>

#include "Support/Files.h"

namespace support {

size_t threadsNamed(const std::string& name) {
  size_t count = 0;
  std::error_code ignored;  // a thread may end during the walk
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task", ignored)) {
    std::string line;
    std::ifstream file(thread.path() / "comm");
    if (std::getline(file, line) && line == name.substr(0, 15)) ++count;
  }
  return count;
}

bool isThreadAsleep(pid_t thread) {
  const std::string path = "/proc/self/task/" + std::to_string(thread) + "/stat";
  return contentsOfFile(path).find(") S ") != std::string::npos;
}

}  // namespace support
