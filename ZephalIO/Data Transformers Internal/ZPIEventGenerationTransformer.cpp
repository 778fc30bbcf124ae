#include "Data Transformers Internal/ZPIEventGenerationTransformer.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "Utility/ZPIRangeEnd.h"

ZPIEventGenerationTransformerPtr ZPIEventGenerationTransformer::initWithData(
    const ZPKDataPtr& pattern, Action action, bool removeData) {
  return std::make_shared<ZPIEventGenerationTransformer>(
      Key(), pattern == nullptr ? ZPKData::data() : pattern->copy(), std::move(action), removeData);
}

ZPIEventGenerationTransformer::ZPIEventGenerationTransformer(Key, ZPKDataPtr pattern, Action action,
                                                             bool removeData)
    : _pattern(std::move(pattern)), _removeData(removeData), _action(std::move(action)) {}

void ZPIEventGenerationTransformer::modifyData(ZPKMutableData* data) {
  if (data == nullptr || passesAsItIs(*data)) return;
  _buffer.appendGivingUp(data);
  size_t heldBefore = 0;
  do {
    heldBefore = _buffer.length();
    __modifyData(data);
  } while (_buffer.length() != heldBefore);
}

// Whether a chunk passes unchanged: no bytes are buffered, the pattern does not occur, and no bytes
// need to be held back.
bool ZPIEventGenerationTransformer::passesAsItIs(const ZPKMutableData& chunk) const {
  if (_buffer.length() > 0 || _pattern->length() == 0) return false;
  return chunk.find(*_pattern, {0, chunk.length()}).location == ZPKNotFound &&
         heldAtTheEnd(chunk.view()) == 0;
}

// Makes one pass: outputs the bytes up to the first occurrence or, if there is none, all the bytes
// that cannot begin one.
void ZPIEventGenerationTransformer::__modifyData(ZPKMutableData* result) {
  const bool isEverywhere = _pattern->length() == 0 && _buffer.length() > 0;
  const ZPKRange found = isEverywhere ? ZPKRange{0, 0} : _buffer.resumeFind(*_pattern);
  if (found.location == ZPKNotFound) {
    handOut(_buffer.length() - heldAtTheEnd(_buffer.view()), result);
    return;
  }
  handOut(_removeData ? static_cast<size_t>(found.location) : ZPIRangeEnd(found), result);
  if (_removeData) _buffer.dropFirst(_pattern->length());
  if (_action) _action();
}

// Moves the first bytes of the buffer to the end of the result. Dropping at the front takes
// constant time, so many occurrences in a long chunk cost no more than their bytes.
void ZPIEventGenerationTransformer::handOut(size_t count, ZPKMutableData* result) {
  result->append(_buffer.bytes(), count);
  _buffer.dropFirst(count);
}

// The number of bytes at the end of `bytes`, in which the pattern does not occur, that are held
// back for the next chunk: all of them if they begin the pattern, otherwise the shortest end that
// does.
size_t ZPIEventGenerationTransformer::heldAtTheEnd(std::string_view bytes) const {
  const std::string_view pattern = _pattern->view();
  if (pattern.starts_with(bytes)) return bytes.size();
  const size_t longest = std::min(bytes.size(), pattern.size());
  for (size_t count = 1; count <= longest; ++count) {
    if (pattern[count - 1] == bytes.back() && bytes.ends_with(pattern.substr(0, count))) {
      return count;
    }
  }
  return 0;
}

bool ZPIEventGenerationTransformer::reset(ZPKErrorPtr* /*error*/) {
  _buffer.dropFirst(_buffer.length());
  return true;
}
