#include "Support/OpenDescriptors.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <string>

namespace support {

namespace {

std::string outputOfProgram(const std::string& command) {
  std::string output;
  FILE* const pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return output;
  for (int byte = std::fgetc(pipe); byte != EOF; byte = std::fgetc(pipe)) {
    output.push_back(static_cast<char>(byte));
  }
  ::pclose(pipe);
  return output;
}

// The program has files of its own open, so the number alone proves nothing.
bool isInherited(int descriptor) {
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const std::string file = std::filesystem::read_symlink(link);
  return outputOfProgram("exec readlink -n " + link) == file;
}

}  // namespace

std::set<int> openDescriptors() {
  std::set<int> candidates;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    candidates.insert(std::stoi(entry.path().filename().string()));
  }
  // The listing's own descriptor is closed by now.
  std::erase_if(candidates, [](int descriptor) { return !isOpenDescriptor(descriptor); });
  return candidates;
}

bool isOpenDescriptor(int descriptor) { return ::fcntl(descriptor, F_GETFD) != -1; }

std::set<int> inheritedOf(const std::set<int>& descriptors) {
  std::set<int> inherited = descriptors;
  std::erase_if(inherited, [](int descriptor) { return !isInherited(descriptor); });
  return inherited;
}

std::set<int> descriptorsSince(const std::set<int>& before) {
  const std::set<int> now = openDescriptors();
  std::set<int> added;
  std::set_difference(now.begin(), now.end(), before.begin(), before.end(),
                      std::inserter(added, added.end()));
  return added;
}

}  // namespace support
