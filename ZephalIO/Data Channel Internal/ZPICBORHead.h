// The head of a CBOR item (RFC 8949, section 3): its kind, and a number that is its value, its
// length or its number of items.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Utility/ZPIHeapVector.h"

enum class ZPICBORKind : uint8_t {
  Unsigned = 0,
  Negative = 1,
  Bytes = 2,
  Text = 3,
  Array = 4,
  Map = 5,
  Tag = 6,
  Simple = 7
};

// The values of the low five bits of the first byte for ZPICBORKind::Simple.
inline constexpr uint8_t kZPICBORFalse = 20;
inline constexpr uint8_t kZPICBORTrue = 21;
inline constexpr uint8_t kZPICBORNull = 22;
inline constexpr uint8_t kZPICBORDouble = 27;

struct ZPICBORHead {
  ZPICBORKind kind = ZPICBORKind::Unsigned;
  /// The low five bits of the first byte.
  uint8_t information = 0;
  /// The number; the bits of the double for kZPICBORDouble.
  uint64_t argument = 0;
  /// The head's own length in bytes.
  size_t length = 0;
};

enum class ZPICBORHeadResult {
  Good,
  TooShort,      // the bytes end within the head
  NotAllowed,    // an indefinite length, or one of the reserved forms
  NotCanonical,  // the number would fit a shorter form
};

// The number of low bits in the first byte, after those of the kind, and the smallest value of them
// that is not the number itself.
inline constexpr unsigned kZPICBORInformationBits = 5;
inline constexpr uint8_t kZPICBORFirstLongForm = 24;

/// The part of ZPIReadCBORHead for heads that are more than a number in the first byte. `head` must
/// already contain what that byte says.
ZPICBORHeadResult ZPIReadCBORHeadAfterFirstByte(std::string_view bytes, ZPICBORHead* head);

/// Reads the head at the start of `bytes`. `head` is valid only if the result is Good. Inline,
/// since most heads are a number in one byte.
inline ZPICBORHeadResult ZPIReadCBORHead(std::string_view bytes, ZPICBORHead* head) {
  if (bytes.empty()) return ZPICBORHeadResult::TooShort;
  const auto first = static_cast<uint8_t>(bytes[0]);
  head->kind = static_cast<ZPICBORKind>(first >> kZPICBORInformationBits);
  head->information = first & ((1U << kZPICBORInformationBits) - 1);
  head->argument = head->information;
  head->length = 1;
  const bool isShort =
      head->information < kZPICBORFirstLongForm && head->kind != ZPICBORKind::Simple;
  return isShort ? ZPICBORHeadResult::Good : ZPIReadCBORHeadAfterFirstByte(bytes, head);
}

/// Writes a head in its shortest form.
void ZPIAppendCBORHead(ZPICBORKind kind, uint64_t argument, ZPIHeapVector<uint8_t>* out);

/// Writes kZPICBORFalse, kZPICBORTrue or kZPICBORNull.
void ZPIAppendCBORSimple(uint8_t value, ZPIHeapVector<uint8_t>* out);

/// Writes a double, always in 64 bits.
void ZPIAppendCBORDouble(double value, ZPIHeapVector<uint8_t>* out);
