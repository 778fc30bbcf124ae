/// @file
/// Notices a different device by its identifier.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Data Transformers/ZPKDataTransformer.h"
#include "Utility/ZPKAtomic.h"
#include "Utility/ZPKNumber.h"
#include "Utility/ZPKRegex.h"

/// Detects that a different device answers: compares the chip identifier (ECID) in a device's
/// prompt, "[0000BEEF:0BADF00D] :-) ", with the expected one.
///
/// Each chunk is examined on its own, and only its first "] :-) " counts. If the 19 characters of
/// the prompt's ECID differ from the expected text, the transformer calls the swap action, once per
/// chunk, and by default empties the chunk. The comparison is case-sensitive and the expected text
/// is in upper case, so a device that prints its ECID in lower case counts as swapped. Nothing is
/// remembered between calls.
///
/// Off until an ECID is expected. All accessors may be used on any thread while modifyData runs.
class ZPK_EXPORT ZPKECIDSwapDetectTransformer final : public ZPKDataTransformer {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// Gets the expected ECID text and then the one that was read, on the thread that called
  /// modifyData.
  using SwapAction =
      std::function<void(const std::string& expectedECID, const std::string& readECID)>;

  /// A detector, initially off. The action must not be null when a swap is found.
  static std::shared_ptr<ZPKECIDSwapDetectTransformer> initWithSwapAction(SwapAction swapAction);

  ZPKECIDSwapDetectTransformer(Key, SwapAction swapAction);
  ~ZPKECIDSwapDetectTransformer() override;

  /// Looks for a prompt in the chunk, and empties the chunk on a swap if
  /// dropResponseWhenECIDSwapDetected. Does nothing for a null chunk.
  void modifyData(ZPKMutableData* data) override;
  /// Does nothing; always true. The expected ECID stays.
  bool reset(ZPKErrorPtr* error = nullptr) override;

  /// Expects the device with this ECID, read as an unsigned 64-bit value; null turns detection off.
  void setExpectedECID(std::optional<ZPKNumber> ecid);
  /// The expected ECID; 0 also while detection is off, and for a text that is not an ECID.
  ZPKNumber expectedECID() const;

  /// Whether a swap empties the chunk; true at first.
  bool dropResponseWhenECIDSwapDetected() const;
  /// Sets whether a swap empties the chunk.
  void setDropResponseWhenECIDSwapDetected(bool drop);

  /// The action of a swap. A new one takes effect with the next swap and must not be null then.
  SwapAction swapAction() const;
  /// Replaces the action; the next swap calls the new one.
  void setSwapAction(SwapAction swapAction);

  /// The bytes that mark a prompt, initially "] :-) ". The ECID text always ends with their first
  /// byte. Null or empty bytes are never found.
  ZPKDataPtr smileyDelimiter() const;
  /// Replaces the bytes that mark a prompt; keeps the reference, not a copy.
  void setSmileyDelimiter(ZPKDataPtr delimiter);

  /// The form of an ECID text. Null matches nothing.
  ZPKRegexPtr regex() const;
  /// Replaces the form of an ECID text, which is searched for in the 19 bytes that end with the
  /// first byte of the mark.
  void setRegex(ZPKRegexPtr regex);

  /// The expected text, such as "[0000BEEF:0BADF00D]"; null or empty while detection is off.
  std::optional<std::string> expectedECIDString() const;
  /// Sets the expected text; null or empty turns detection off. The text is not checked.
  void setExpectedECIDString(std::optional<std::string> text);

 private:
  void examine(const std::string& current, ZPKMutableData* data);
  std::optional<std::string_view> bytesBeforeDelimiter(const ZPKMutableData& chunk) const;
  bool hasECIDForm(std::string_view bytes) const;

  std::atomic<bool> _dropResponseWhenECIDSwapDetected{true};
  ZPKAtomic<SwapAction> _swapAction;
  ZPKAtomic<ZPKDataPtr> _smileyDelimiter;
  ZPKAtomic<ZPKRegexPtr> _regex;
  ZPKAtomic<std::optional<std::string>> _expectedECIDString;
  ZPKAtomic<std::optional<std::string>>::Snapshot _expected;  // modifyData's own view
};

/// A shared swap detector.
using ZPKECIDSwapDetectTransformerPtr = std::shared_ptr<ZPKECIDSwapDetectTransformer>;
