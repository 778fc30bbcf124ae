#include "Data Channel Internal/ZPICBORHead.h"

#include <bit>
#include <limits>

namespace {

// The meaning of the low five bits of the first byte: below 24 the number itself, 24 to 27 the
// width of the number that follows, 31 an indefinite length.
constexpr uint8_t kOneByte = kZPICBORFirstLongForm;
constexpr uint8_t kEightBytes = 27;

constexpr size_t widthOf(uint8_t information) { return size_t{1} << (information - kOneByte); }

// The smallest number that needs this width.
constexpr uint64_t smallestFor(uint8_t information) {
  switch (information) {
    case 24: return kOneByte;
    case 25: return uint64_t{std::numeric_limits<uint8_t>::max()} + 1;
    case 26: return uint64_t{std::numeric_limits<uint16_t>::max()} + 1;
    default: return uint64_t{std::numeric_limits<uint32_t>::max()} + 1;
  }
}

uint64_t bigEndian16(std::string_view bytes) {
  return static_cast<unsigned>(static_cast<uint8_t>(bytes[0]) << 8 |
                               static_cast<uint8_t>(bytes[1]));
}

uint64_t bigEndian32(std::string_view bytes) {
  return bigEndian16(bytes) << 16 | bigEndian16(bytes.substr(2));
}

// Reads 1, 2, 4 or 8 bytes. Without a loop, so that the compiler turns each case into a single
// load.
uint64_t bigEndian(std::string_view bytes) {
  switch (bytes.size()) {
    case 1: return static_cast<uint8_t>(bytes[0]);
    case 2: return bigEndian16(bytes);
    case 4: return bigEndian32(bytes);
    default: return bigEndian32(bytes) << 32 | bigEndian32(bytes.substr(4));
  }
}

// For the kind Simple, these are not the widths of a number: 25 to 27 are floats, and an archive
// has no use for the values in one byte.
ZPICBORHeadResult checkSimple(uint8_t information) {
  switch (information) {
    case kZPICBORFalse:
    case kZPICBORTrue:
    case kZPICBORNull:
    case kZPICBORDouble: return ZPICBORHeadResult::Good;
    default: return ZPICBORHeadResult::NotAllowed;
  }
}

ZPICBORHeadResult checkForm(const ZPICBORHead& head) {
  if (head.kind == ZPICBORKind::Simple) return checkSimple(head.information);
  return head.information > kEightBytes ? ZPICBORHeadResult::NotAllowed : ZPICBORHeadResult::Good;
}

uint8_t firstByte(ZPICBORKind kind, uint8_t information) {
  return static_cast<uint8_t>(static_cast<unsigned>(kind) << kZPICBORInformationBits | information);
}

void appendWide(ZPICBORKind kind, uint8_t information, uint64_t argument,
                ZPIHeapVector<uint8_t>* out) {
  const size_t width = widthOf(information);
  uint8_t* const bytes = out->extend(1 + width);
  bytes[0] = firstByte(kind, information);
  for (size_t i = 0; i < width; ++i) {
    bytes[width - i] = static_cast<uint8_t>(argument >> (8 * i));
  }
}

}  // namespace

ZPICBORHeadResult ZPIReadCBORHeadAfterFirstByte(std::string_view bytes, ZPICBORHead* head) {
  if (const auto form = checkForm(*head); form != ZPICBORHeadResult::Good) return form;
  if (head->information < kOneByte) return ZPICBORHeadResult::Good;
  const size_t width = widthOf(head->information);
  if (bytes.size() - 1 < width) return ZPICBORHeadResult::TooShort;
  head->argument = bigEndian(bytes.substr(1, width));
  head->length = 1 + width;
  if (head->kind == ZPICBORKind::Simple) return ZPICBORHeadResult::Good;
  return head->argument < smallestFor(head->information) ? ZPICBORHeadResult::NotCanonical
                                                         : ZPICBORHeadResult::Good;
}

void ZPIAppendCBORHead(ZPICBORKind kind, uint64_t argument, ZPIHeapVector<uint8_t>* out) {
  if (argument < kOneByte) {
    *out->extend(1) = firstByte(kind, static_cast<uint8_t>(argument));
    return;
  }
  uint8_t information = kEightBytes;
  while (argument < smallestFor(information)) --information;
  appendWide(kind, information, argument, out);
}

void ZPIAppendCBORSimple(uint8_t value, ZPIHeapVector<uint8_t>* out) {
  *out->extend(1) = firstByte(ZPICBORKind::Simple, value);
}

void ZPIAppendCBORDouble(double value, ZPIHeapVector<uint8_t>* out) {
  appendWide(ZPICBORKind::Simple, kZPICBORDouble, std::bit_cast<uint64_t>(value), out);
}
