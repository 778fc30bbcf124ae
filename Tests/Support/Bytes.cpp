#include "Support/Bytes.h"

namespace support {

ZPKDataPtr dataOf(std::string_view bytes) {
  return ZPKData::dataWithBytes(bytes.data(), bytes.size());
}

ZPKMutableDataPtr chunkOf(std::string_view bytes) {
  auto chunk = ZPKMutableData::data();
  append(chunk, bytes);
  return chunk;
}

ZPKMutableDataPtr unitOf(std::string_view bytes) {
  return ZPKMutableData::dataWithBytes(bytes.data(), bytes.size());
}

void append(const ZPKMutableDataPtr& buffer, std::string_view bytes) {
  buffer->append(bytes.data(), bytes.size());
}

std::optional<std::string> bytesOf(const ZPKDataPtr& data) {
  if (data == nullptr) return std::nullopt;
  return std::string(data->view());
}

}  // namespace support
