#include "Data Channel Internal/ZPILogBatch.h"

void ZPILogBatch::add(std::string_view chunk) {
  _text.append(chunk);
  _ends.push_back(_text.size());
}

void ZPILogBatch::clear() {
  _text.clear();
  _ends.clear();
}

// A swap, since assigning an empty string keeps the memory.
void ZPILogBatch::clearAndFree() {
  std::string().swap(_text);
  std::vector<size_t>().swap(_ends);
}

std::vector<std::string_view> ZPILogBatch::chunks() const {
  std::vector<std::string_view> chunks;
  chunks.reserve(_ends.size());
  size_t start = 0;
  for (const size_t end : _ends) {
    chunks.push_back(std::string_view(_text).substr(start, end - start));
    start = end;
  }
  return chunks;
}
