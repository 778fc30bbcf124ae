#pragma once

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "Data Channel Internal/ZPILogChunk.h"
#include "Utility/ZPIHeapVector.h"

/// Chunks on their way to a log file, oldest first, in one block of memory.
class ZPILogBatch final {
 public:
  /// Adds the chunk of `text` (see ZPIAppendLogChunk). If memory runs out, it throws std::bad_alloc
  /// and adds nothing.
  void add(const ZPILogPrefix& prefix, std::string_view text);
  /// Drops the chunks and keeps the memory for others.
  void clear();
  /// Drops the chunks and their memory.
  void clearAndFree();
  /// Exchanges the chunks of two batches without copying them.
  void swap(ZPILogBatch& other) noexcept;

  bool isEmpty() const { return _ends.empty(); }
  /// The chunks, with nothing between them. Valid until the next change.
  std::string_view text() const;
  /// Where each chunk ends in the text. Valid until the next change.
  std::span<const size_t> ends() const { return _ends; }

 private:
  size_t size() const { return _ends.empty() ? 0 : _ends.back(); }

  ZPIHeapVector<char> _text;  // may be followed by a part of a chunk that could not be added
  std::vector<size_t> _ends;
};
