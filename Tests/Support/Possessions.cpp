#include "Support/Possessions.h"

#include <filesystem>

#include "Support/EventWait.h"
#include "Support/OpenDescriptors.h"
#include "Support/ProcessStatus.h"
#include "Support/SystemCalls.h"

namespace support {

namespace {

std::string links() {
  std::string text = " (";
  for (const int descriptor : openDescriptors()) {
    std::error_code ignored;
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    text += std::filesystem::read_symlink(link, ignored).string() + " ";
  }
  return text + ")";
}

}  // namespace

Possessions::Possessions()
    : threads(processStatus("Threads")),
      descriptors(openDescriptors().size()),
      blocks(liveBlocks()) {}

std::string leftBehindSince(const Possessions& before, std::chrono::milliseconds limit) {
  Possessions now;
  const auto isMore = [&] {
    now = Possessions();
    return now.threads > before.threads || now.descriptors > before.descriptors ||
           now.blocks > before.blocks;
  };
  if (waitFor([&] { return !isMore(); }, limit)) return "";
  return "left behind: " + std::to_string(now.threads - before.threads) + " threads, " +
         std::to_string(now.descriptors - before.descriptors) + " descriptors" + links() + ", " +
         std::to_string(now.blocks - before.blocks) + " blocks";
}

}  // namespace support
