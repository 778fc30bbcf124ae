#include "ZephalConsole/Internal/SwapWatch.h"

#include <algorithm>

#include "ZPKMutableData.h"

namespace zephal::internal {
namespace {

// The end of a prompt with an ECID, and a generous length of the whole of it.
constexpr std::string_view kPromptEnd = "] :-) ";
constexpr size_t kLongestPrompt = 64;

}  // namespace

SwapWatch::SwapWatch(std::optional<uint64_t> ecid) {
  if (!ecid.has_value()) return;
  _detector = ZPKECIDSwapDetectTransformer::initWithSwapAction(
      [this](const std::string& expected, const std::string& read) {
        _swap = "expected the device " + expected + ", but " + read + " has answered";
      });
  _detector->setExpectedECID(ZPKNumber(*ecid));
}

void SwapWatch::look(std::string_view bytes) {
  if (_detector == nullptr) return;
  _recent += bytes;
  // The detector sees one prompt at a time, since only the first of a chunk counts.
  size_t from = 0;
  for (size_t at = _recent.find(kPromptEnd); at != std::string::npos;
       at = _recent.find(kPromptEnd, from)) {
    const size_t end = at + kPromptEnd.size();
    ZPKMutableData chunk;
    chunk.append(_recent.data() + from, end - from);
    _detector->modifyData(&chunk);
    from = end;
  }
  const size_t kept = std::min(_recent.size() - from, kLongestPrompt);
  _recent.erase(0, _recent.size() - kept);
}

void SwapWatch::reset() {
  _swap.reset();
  _recent.clear();
}

}  // namespace zephal::internal
