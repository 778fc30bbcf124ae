#include "Support/ProcessStatus.h"

#include <malloc.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace support {

size_t processStatus(std::string_view name) {
  std::ifstream file("/proc/self/status");
  std::string line;
  while (std::getline(file, line)) {
    const bool isWanted =
        line.starts_with(name) && line.size() > name.size() && line[name.size()] == ':';
    if (isWanted) return std::strtoul(line.c_str() + name.size() + 1, nullptr, 10);
  }
  return 0;
}

size_t allocatedBytes() {
  const auto info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

bool isMemoryComparable() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return false;
#else
  return true;
#endif
}

}  // namespace support
