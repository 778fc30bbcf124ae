#include "Support/StartedPrograms.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

namespace support {

namespace {

std::vector<std::string> linesOf(const char* command) {
  std::vector<std::string> lines(1);
  FILE* const output = ::popen(command, "r");
  if (output == nullptr) return lines;
  for (int byte = std::fgetc(output); byte != EOF; byte = std::fgetc(output)) {
    if (byte == '\n') {
      lines.emplace_back();
    } else {
      lines.back() += static_cast<char>(byte);
    }
  }
  ::pclose(output);
  return lines;
}

std::set<std::string> inheritedDescriptors() {
  const std::vector<std::string> lines = linesOf("exec ls -l /proc/self/fd");
  constexpr size_t kStandardStreams = 3;
  if (lines.size() < kStandardStreams) return {"no list"};
  std::set<std::string> descriptors;
  for (const std::string& line : lines) {
    const size_t arrow = line.find(" -> ");
    if (arrow == std::string::npos) continue;
    const std::string descriptor = line.substr(line.rfind(' ', arrow - 1) + 1);
    // The program itself has the folder open that it lists.
    const bool isItsOwn = descriptor.find(" -> /proc/") != std::string::npos;
    if (!isItsOwn && std::stoi(descriptor) > 2) descriptors.insert(descriptor);
  }
  return descriptors;
}

}  // namespace

std::set<std::string> descriptorsInheritedDuring(const std::function<void()>& round) {
  constexpr int kPrograms = 100;
  const std::set<std::string> before = inheritedDescriptors();
  std::atomic<bool> isDone{false};
  std::atomic<size_t> rounds{0};
  std::thread other([&] {
    for (; !isDone; ++rounds) round();
  });
  std::set<std::string> inherited;
  for (int i = 0; i < kPrograms || rounds < 3; ++i) inherited.merge(inheritedDescriptors());
  isDone = true;
  other.join();
  std::erase_if(inherited, [&](const std::string& each) { return before.contains(each); });
  return inherited;
}

}  // namespace support
