#include "Data Transformers Internal/ZPIPacketAggregatorTransformer.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "Data Transformers Internal/ZPIPacketSizeField.h"
#include "Utility/ZPKReportFailure.h"

namespace {

void assertThat(bool condition, const char* text, const ZPIFailureSite& site) {
  if (condition) return;
  std::fprintf(stderr, "%s: assertion failed: %s\n", ZPIErrorLocation(site).c_str(), text);
  std::abort();
}

}  // namespace

int32_t readExpectedSizeAndSwap(const ZPKData& dataIn, size_t sizeAllocated) {
  assertThat(dataIn.length() >= sizeAllocated, "[dataIn length] >= sizeAllocated",
             {"readExpectedSizeAndSwap"});
  uint64_t size = 0;
  for (size_t i = 0; i < sizeAllocated; ++i) size = (size << 8) | dataIn.bytes()[i];
  return static_cast<int32_t>(size);
}

void truncateFirstNBytes(ZPKMutableData& dataIn, size_t n) {
  assertThat(dataIn.length() >= n, "[dataIn length] >= n", {"truncateFirstNBytes"});
  dataIn.dropFirst(n);
}

ZPIPacketAggregatorTransformerPtr ZPIPacketAggregatorTransformer::initWithPacketLengthEncoding(
    int32_t packetLengthEncoding) {
  return std::make_shared<ZPIPacketAggregatorTransformer>(Key(), packetLengthEncoding);
}

ZPIPacketAggregatorTransformer::ZPIPacketAggregatorTransformer(Key, int32_t packetLengthEncoding)
    : _packetLengthEncoding(packetLengthEncoding),
      _buffer(ZPKMutableData::data()),
      _readResults(ZPKMutableData::data()) {}

void ZPIPacketAggregatorTransformer::modifyData(ZPKMutableData* data) {
  if (data == nullptr) return;
  const ZPKMutableDataPtr buffer = _buffer.load();
  if (buffer == nullptr) {
    data->setLength(0);
    return;
  }
  buffer->appendGivingUp(data);
  if (expectedPacketSize() == 0) readSizeField(*buffer);
  if (expectedPacketSize() != 0) handOutPayload(*buffer, data);
}

void ZPIPacketAggregatorTransformer::readSizeField(ZPKMutableData& buffer) {
  const int32_t width = packetLengthEncoding();
  if (!ZPIIsSizeFieldWidth(width)) return;
  const auto fieldLength = static_cast<size_t>(width);
  if (buffer.length() < fieldLength) return;
  const int64_t size = readExpectedSizeAndSwap(buffer, fieldLength);
  setExpectedPacketSize(static_cast<uint64_t>(size));
  truncateFirstNBytes(buffer, fieldLength);
}

void ZPIPacketAggregatorTransformer::handOutPayload(ZPKMutableData& buffer,
                                                    ZPKMutableData* result) {
  if (buffer.length() < expectedPacketSize()) return;
  const auto size = static_cast<size_t>(expectedPacketSize());
  result->append(buffer.bytes(), size);
  truncateFirstNBytes(buffer, size);
  setExpectedPacketSize(0);
}

bool ZPIPacketAggregatorTransformer::reset(ZPKErrorPtr* /*error*/) {
  setBuffer(ZPKMutableData::data());
  setReadResults(ZPKMutableData::data());
  setExpectedPacketSize(0);
  return true;
}
