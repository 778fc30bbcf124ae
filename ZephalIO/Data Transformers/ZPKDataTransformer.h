#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "Utility/ZPKExport.h"
#include "Utility/ZPKMutableData.h"
#include "Utility/ZPKTypes.h"

/// An object that edits a chunk of bytes in place and may hold bytes back between calls.
///
/// The channels that use a transformer hold it strongly and may share it with its creator. It is
/// called by one thread at a time: the thread that reads, or the one that writes. Transformers in a
/// list run in order, each on what the one before has left in the same buffer.
///
///     class Upper final : public ZPKDataTransformer {
///      public:
///       void modifyData(ZPKMutableData* data) override { ... }
///       bool reset(ZPKErrorPtr*) override { return true; }
///     };
class ZPK_EXPORT ZPKDataTransformer {
 public:
  virtual ~ZPKDataTransformer();

  /// Edits `data`, which stays the caller's; afterwards it holds what is to be handed on. It may
  /// grow, shrink, change or become empty, and empty means only that nothing is to be handed on
  /// yet. Must take any buffer, also an empty one, on which a transformer that holds a complete
  /// unit back releases it. Cannot fail: what a transformer detects, it tells through a callback
  /// given at its creation.
  virtual void modifyData(ZPKMutableData* data) = 0;

  /// Drops what is held back and keeps the configuration. True for success; the slot is touched on
  /// failure only. Comes while the channel is closed.
  virtual bool reset(ZPKErrorPtr* error = nullptr) = 0;
};

using ZPKDataTransformerPtr = std::shared_ptr<ZPKDataTransformer>;
using ZPKDataTransformerArray = std::vector<ZPKDataTransformerPtr>;

// The factories of the transformers. Any thread may call them. Bytes that are given are copied, so
// that a later change of theirs does not reach the transformer. A callback runs on the thread that
// calls modifyData or reset, before that returns, and must not call the transformer. A transformer
// made here has no lock: it sits on one path of one channel. A failure is null, domain
// "zephal-communication", code 3 if nothing else is said. reset is true if nothing else is said.

/// Puts `prepend` in front of every chunk, an empty one included. Fails for null; empty bytes
/// change nothing.
ZPK_EXPORT ZPKDataTransformerPtr createPrependingTransformer(const ZPKDataPtr& prepend,
                                                             ZPKErrorPtr* error = nullptr);

/// Adds `data` to the end of every chunk, an empty one included. Fails for null; empty bytes change
/// nothing. For bytes that can be replaced see ZPKMutableDataAppendingTransformer.
ZPK_EXPORT ZPKDataTransformerPtr createAppendingTransformer(const ZPKDataPtr& data,
                                                            ZPKErrorPtr* error = nullptr);

/// Hands every chunk, a null one too, to `dataBlock`, which edits it in place. reset calls
/// `resetBlock`; with a null one it fails, domain "zephal-communication", code 6. Fails for a null
/// `dataBlock`.
ZPK_EXPORT ZPKDataTransformerPtr
createBlockTransformer(std::function<void(ZPKMutableData* data)> dataBlock,
                       std::function<void()> resetBlock, ZPKErrorPtr* error = nullptr);

/// Cuts the stream into units that end in `pattern`, one a call; an empty chunk is enough for the
/// next unit. `removeTerminator` cuts the pattern off, and then an empty unit looks like no unit.
/// Fails for a null or empty pattern. For a pattern that can be replaced see
/// ZPKMutableDataAggregatorTransformer.
ZPK_EXPORT ZPKDataTransformerPtr createAggregatingTransformer(const ZPKDataPtr& pattern,
                                                              bool removeTerminator,
                                                              ZPKErrorPtr* error = nullptr);

/// Takes packets, each a big-endian size of `packetLengthEncoding` bytes and then that many bytes,
/// and hands out their payloads, one a call; an empty chunk is enough for the next one.
///
/// The width is meant to be 1 to 8. A width of 0 or less makes a transformer that holds everything;
/// one above 8 fails with code 12, since no size has so many bytes. Of a size the low 32 bits
/// count, as a signed number: a size whose bit 31 is set is never reached, and everything is held
/// until reset, without an error. An empty packet gives empty data, as if nothing had come.
ZPK_EXPORT ZPKDataTransformerPtr createPacketAggregatorTransformer(int32_t packetLengthEncoding,
                                                                   ZPKErrorPtr* error = nullptr);

/// Puts the size of each chunk in front of it, as createPacketAggregatorTransformer takes it. A
/// chunk that is too long for the field goes out as it is, without an error. An empty chunk becomes
/// a packet of size zero.
///
/// The width is meant to be 1 to 8. A width of 0 or less makes a transformer that changes nothing;
/// one above 8 fails with code 12.
ZPK_EXPORT ZPKDataTransformerPtr createPacketPrependTransformer(int32_t packetLengthEncoding,
                                                                ZPKErrorPtr* error = nullptr);

/// Cuts every occurrence of `pattern` out of the stream. What could be the start of one is held
/// until later bytes settle it. Fails for a null or empty pattern.
ZPK_EXPORT ZPKDataTransformerPtr createFilteringTransformer(const ZPKDataPtr& pattern,
                                                            ZPKErrorPtr* error = nullptr);

/// Calls `blk` at each occurrence of `pattern`, in order and with the bytes before it already in
/// the chunk; `removeData` cuts the pattern out. What could be the start of an occurrence is held
/// until later bytes settle it. Of several starts that the end of a chunk could be, the shortest
/// alone is held, so that an occurrence of a pattern whose start repeats ("aab") can go unnoticed
/// when it is split. Fails for a null or empty pattern, then for a null `blk`.
ZPK_EXPORT ZPKDataTransformerPtr createEventGeneratorTransformer(const ZPKDataPtr& pattern,
                                                                 bool removeData,
                                                                 std::function<void()> blk,
                                                                 ZPKErrorPtr* error = nullptr);

/// Notices a pause in the traffic: calls `blk` in a modifyData that comes `timeout` seconds or more
/// after the one before. Chunks stay as they are; whatever they hold, an empty one counts too.
/// There is no timer, and setting the system's clock makes no pause. After a pause measuring begins
/// anew with the next call; reset does not end one. Fails for a timeout of 0 or less, then for a
/// null `blk`; with a timeout that is not a number `blk` is never called.
ZPK_EXPORT ZPKDataTransformerPtr createTimeTransformer(double timeout, std::function<void()> blk,
                                                       ZPKErrorPtr* error = nullptr);

/// Holds the stream back until the regular expression (see ZPKRegex) matches, and then hands out
/// everything up to the end of the last match.
///
/// A match that ends where the held bytes end is handed out and stays held as well, so that it
/// comes out again with the next match, until reset. The end of a match, counted in code points, is
/// used as a number of bytes: behind text that is not ASCII the cut falls short of the match. After
/// a byte that is not UTF-8 nothing matches and everything is held, until reset. Each new piece
/// makes all that is held be searched again, which costs the square of a long response. More than
/// one match in a call is noted in the log, at level 1.
///
/// Fails for a pattern that does not compile and for null.
ZPK_EXPORT ZPKDataTransformerPtr createRegExpTransformer(std::optional<std::string_view> pattern,
                                                         ZPKErrorPtr* error = nullptr);
