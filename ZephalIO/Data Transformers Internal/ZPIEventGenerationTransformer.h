#pragma once

#include <functional>
#include <memory>

#include "Data Transformers/ZPKDataTransformer.h"

/// Searches a stream for a pattern of bytes, calls an action at each occurrence, and can cut the
/// pattern out.
///
/// What could be the start of an occurrence is held until later bytes settle it; nothing times out.
/// Of several starts that the end of a chunk could be, the shortest alone is held, unless all that
/// there is is a start: behind other bytes an occurrence of a pattern whose start repeats can thus
/// go unnoticed when it is split ("xaa" and then "b" for "aab").
///
/// No lock. The action runs on the thread that called, with the bytes before the occurrence already
/// in the chunk (and the pattern, unless it is cut out), and must not call the transformer.
class ZPIEventGenerationTransformer final : public ZPKDataTransformer {
  struct Key {
    explicit Key() = default;
  };

 public:
  using Action = std::function<void()>;

  /// Keeps a copy of `pattern`. A null action is not called; a null pattern is an empty one, which
  /// counts as found once a call, at the start of the held bytes, and holds all of them.
  static std::shared_ptr<ZPIEventGenerationTransformer> initWithData(const ZPKDataPtr& pattern,
                                                                     Action action,
                                                                     bool removeData);

  ZPIEventGenerationTransformer(Key, ZPKDataPtr pattern, Action action, bool removeData);

  void modifyData(ZPKMutableData* data) override;
  /// Drops the held bytes; always true.
  bool reset(ZPKErrorPtr* error = nullptr) override;

  /// Whether the pattern is cut out. Nothing in the library calls these two.
  bool removeData() const { return _removeData; }
  Action action() const { return _action; }

 private:
  void __modifyData(ZPKMutableData* result);
  void handOut(size_t count, ZPKMutableData* result);
  size_t heldAtTheEnd() const;

  const ZPKDataPtr _pattern;  // never null
  // Between calls a proper start of the pattern, or nothing.
  ZPKMutableData _buffer;
  const bool _removeData;
  const Action _action;
};

using ZPIEventGenerationTransformerPtr = std::shared_ptr<ZPIEventGenerationTransformer>;
