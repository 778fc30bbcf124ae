#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ZPKECIDSwapDetectTransformer.h"

namespace zephal::internal {

/// Looks for prompts with a chip identifier in a stream, however it is cut, and notices a different
/// one. For one thread at a time.
class SwapWatch {
 public:
  /// Without an ECID it does nothing.
  explicit SwapWatch(std::optional<uint64_t> ecid);

  void look(std::string_view bytes);
  /// What was expected and what was read, if a different device has answered.
  const std::optional<std::string>& swap() const { return _swap; }
  /// Forgets the swap and what was seen.
  void reset();

 private:
  ZPKECIDSwapDetectTransformerPtr _detector;  // null without an ECID
  std::string _recent;                        // the last bytes, for a prompt that is cut
  std::optional<std::string> _swap;
};

}  // namespace zephal::internal
