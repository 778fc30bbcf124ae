#include "Support/Bytes.h"

namespace support {

ZPKDataPtr dataOf(std::string_view bytes) {
  return ZPKData::dataWithBytes(bytes.data(), bytes.size());
}

ZPKMutableDataPtr chunkOf(std::string_view bytes) {
  auto chunk = ZPKMutableData::data();
  chunk->append(bytes.data(), bytes.size());
  return chunk;
}

std::optional<std::string> bytesOf(const ZPKDataPtr& data) {
  if (data == nullptr) return std::nullopt;
  return std::string(data->view());
}

}  // namespace support
