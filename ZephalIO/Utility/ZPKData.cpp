#include "Utility/ZPKData.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "Utility/ZPIByteSearch.h"
#include "Utility/ZPIMakeSharedWithBytes.h"
#include "Utility/ZPISpareBlock.h"
#include "Utility/ZPIText.h"
#include "Utility/ZPKMutableData.h"

namespace {

constexpr size_t kDescribedLength = 32;

// A copy that can be edited is made to be edited: there is room for a line terminator.
constexpr size_t kRoomOfACopy = 16;

}  // namespace

ZPKDataPtr ZPKData::data() {
  // Never destroyed: a reader thread may ask for it while the process runs its exit handlers.
  static const auto* const empty = new ZPKDataPtr(dataWithBytesNoCopy(nullptr, 0));
  return *empty;
}

ZPKDataPtr ZPKData::dataWithBytes(const void* bytes, size_t length) {
  if (length == 0) return data();
  uint8_t* storage = nullptr;
  auto result = ZPIMakeSharedWithBytes<ZPKData>(length, &storage, Key());
  std::memcpy(storage, bytes, length);
  result->_block.storage = storage;
  result->_block.length = length;
  result->_block.isWithinObject = true;
  result->_self = result;
  return result;
}

ZPKDataPtr ZPKData::dataWithBytesNoCopy(void* buffer, size_t length) {
  auto result = std::make_shared<ZPKData>(Key());
  result->_block.storage = static_cast<uint8_t*>(buffer);
  result->_block.length = length;
  result->_self = result;
  return result;
}

ZPKDataPtr ZPKData::dataWithString(std::optional<std::string_view> string) {
  if (!string.has_value()) return nullptr;
  return dataWithBytes(string->data(), string->size());
}

ZPKData::~ZPKData() {
  if (_block.isWithinObject) return;
  ZPISpareBlock::release(_block.storage, static_cast<size_t>(_block.capacity));
}

ZPKDataPtr ZPKData::copy() const { return ZPKDataPtr(_self); }

ZPKMutableDataPtr ZPKData::mutableCopy() const {
  auto result = ZPKMutableData::dataWithCapacity(length() + kRoomOfACopy);
  result->append(*this);
  return result;
}

size_t ZPKData::getBytes(void* buffer, size_t length) const {
  const size_t count = std::min(length, this->length());
  if (count > 0) std::memcpy(buffer, bytes(), count);
  return count;
}

ZPKDataPtr ZPKData::subdata(ZPKRange range) const {
  if (range.location > length() || range.length > length() - range.location) return nullptr;
  return dataWithBytes(bytes() + range.location, static_cast<size_t>(range.length));
}

ZPKRange ZPKData::find(const ZPKData& pattern, ZPKRange range) const {
  if (range.location >= this->length()) return {};
  const size_t start = static_cast<size_t>(range.location);
  const size_t length =
      static_cast<size_t>(std::min<uint64_t>(range.length, this->length() - start));
  const uint64_t offset = ZPIFindBytes(bytes() + start, length, pattern.bytes(), pattern.length());
  if (offset == ZPKNotFound) return {};
  return {start + offset, pattern.length()};
}

std::optional<std::string> ZPKData::string() const {
  if (!ZPIIsValidUTF8(view())) return std::nullopt;
  return std::string(view());
}

bool ZPKData::isEqual(const ZPKObject& other) const {
  const auto* data = dynamic_cast<const ZPKData*>(&other);
  return data != nullptr && *data == *this;
}

std::string ZPKData::debugDescription() const {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text = "h'";
  for (const char byte : view().substr(0, kDescribedLength)) {
    text += kDigits[static_cast<uint8_t>(byte) >> 4];
    text += kDigits[static_cast<uint8_t>(byte) & 0x0F];
  }
  if (length() <= kDescribedLength) return text + "'";
  return text + "...' (" + std::to_string(length()) + " bytes)";
}
