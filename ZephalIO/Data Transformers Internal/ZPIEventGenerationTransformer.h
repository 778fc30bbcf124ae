#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "Data Transformers/ZPKDataTransformer.h"

/// Searches a stream for a pattern of bytes, calls an action at each occurrence, and can remove the
/// pattern.
///
/// Bytes that could begin an occurrence are held back until later bytes decide; there is no
/// timeout. If the end of the buffered bytes could be several starts of the pattern, only the
/// shortest is held back, unless all the buffered bytes are such a start. So after other bytes a
/// split occurrence of a pattern whose start repeats can go unnoticed ("xaa" and then "b" for
/// "aab").
///
/// Not thread-safe. The action runs on the calling thread and must not call the transformer. At
/// that time the bytes before the occurrence are already in the chunk, and so is the pattern unless
/// it is removed.
class ZPIEventGenerationTransformer final : public ZPKDataTransformer {
  struct Key {
    explicit Key() = default;
  };

 public:
  using Action = std::function<void()>;

  /// Keeps a copy of `pattern`. A null action is not called. A null pattern is like an empty one,
  /// which counts as found once per call, at the start of the buffered bytes, and holds back all of
  /// them.
  static std::shared_ptr<ZPIEventGenerationTransformer> initWithData(const ZPKDataPtr& pattern,
                                                                     Action action,
                                                                     bool removeData);

  ZPIEventGenerationTransformer(Key, ZPKDataPtr pattern, Action action, bool removeData);

  void modifyData(ZPKMutableData* data) override;
  /// Drops the buffered bytes; always true.
  bool reset(ZPKErrorPtr* error = nullptr) override;

  /// Whether the pattern is removed. Nothing in the library calls these two.
  bool removeData() const { return _removeData; }
  Action action() const { return _action; }

 private:
  void __modifyData(ZPKMutableData* result);
  void handOut(size_t count, ZPKMutableData* result);
  bool passesAsItIs(const ZPKMutableData& chunk) const;
  size_t heldAtTheEnd(std::string_view bytes) const;

  const ZPKDataPtr _pattern;  // never null
  // Between calls this contains the start of a possible occurrence, or nothing.
  ZPKMutableData _buffer;
  const bool _removeData;
  const Action _action;
};

using ZPIEventGenerationTransformerPtr = std::shared_ptr<ZPIEventGenerationTransformer>;
