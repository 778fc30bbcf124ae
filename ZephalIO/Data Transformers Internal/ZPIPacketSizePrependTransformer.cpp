#include "Data Transformers Internal/ZPIPacketSizePrependTransformer.h"

#include <array>

#include "Data Transformers Internal/ZPIPacketSizeField.h"

namespace {

uint64_t largestSize(int32_t width) {
  return width == kZPIWidestSizeField ? UINT64_MAX : (uint64_t{1} << (8 * width)) - 1;
}

std::array<uint8_t, kZPIWidestSizeField> bigEndian(uint64_t value) {
  std::array<uint8_t, kZPIWidestSizeField> bytes{};
  for (auto byte = bytes.rbegin(); byte != bytes.rend(); ++byte, value >>= 8) {
    *byte = static_cast<uint8_t>(value);
  }
  return bytes;
}

}  // namespace

ZPIPacketSizePrependTransformerPtr ZPIPacketSizePrependTransformer::initWithPacketLengthEncoding(
    int32_t packetLengthEncoding) {
  return std::make_shared<ZPIPacketSizePrependTransformer>(Key(), packetLengthEncoding);
}

ZPIPacketSizePrependTransformer::ZPIPacketSizePrependTransformer(Key, int32_t packetLengthEncoding)
    : _packetLengthEncoding(packetLengthEncoding) {}

void ZPIPacketSizePrependTransformer::modifyData(ZPKMutableData* data) {
  if (data == nullptr) return;
  const int32_t width = packetLengthEncoding();
  if (!ZPIIsSizeFieldWidth(width)) return;
  const uint64_t size = data->length();
  if (size > largestSize(width)) return;
  const auto fieldLength = static_cast<size_t>(width);
  const auto field = bigEndian(size);
  const ZPKMutableDataPtr packet = ZPKMutableData::dataWithCapacity(fieldLength + data->length());
  packet->append(field.data() + field.size() - fieldLength, fieldLength);
  packet->append(*data);
  data->swap(*packet);
}

bool ZPIPacketSizePrependTransformer::reset(ZPKErrorPtr* /*error*/) { return true; }
