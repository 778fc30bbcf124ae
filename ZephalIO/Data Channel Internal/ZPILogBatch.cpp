#include "Data Channel Internal/ZPILogBatch.h"

namespace {

// Room for some short chunks. A batch, whose memory is freed in each pause, would otherwise grow
// in many steps after it.
constexpr size_t kFirstBytes = 1024;
constexpr size_t kFirstChunks = 16;

}  // namespace

void ZPILogBatch::add(const ZPILogPrefix& prefix, std::string_view text) {
  _text.truncate(size());
  if (_ends.capacity() == 0) _ends.reserve(kFirstChunks);
  if (_text.capacity() == 0) _text.reserve(kFirstBytes);
  ZPIAppendLogChunk(prefix, text, _text);
  _ends.push_back(_text.size());
}

void ZPILogBatch::clear() {
  _text.truncate(0);
  _ends.clear();
}

// A swap, since clearing keeps the memory.
void ZPILogBatch::clearAndFree() { ZPILogBatch().swap(*this); }

void ZPILogBatch::swap(ZPILogBatch& other) noexcept {
  _text.swap(other._text);
  _ends.swap(other._ends);
}

std::string_view ZPILogBatch::text() const { return {_text.data(), size()}; }
