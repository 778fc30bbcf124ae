#include "Support/OpenDescriptors.h"

#include <fcntl.h>

#include <filesystem>
#include <string>

namespace support {

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

}  // namespace support
