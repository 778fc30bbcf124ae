/// @file
/// The contract of everything that edits bytes in place, and the factories of transformers.
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
/// The channels that use a transformer hold it strongly and may share it with its creator. One
/// thread at a time calls it: the thread that reads, or the one that writes. Transformers in a list
/// run in order, each on the result that the previous one left in the same buffer.
///
///     class Upper final : public ZPKDataTransformer {
///      public:
///       void modifyData(ZPKMutableData* data) override { ... }
///       bool reset(ZPKErrorPtr*) override { return true; }
///     };
class ZPK_EXPORT ZPKDataTransformer {
 public:
  virtual ~ZPKDataTransformer();

  /// Edits `data`, which the caller still owns; afterwards it contains the output. It may grow,
  /// shrink, change or become empty; empty only means that there is no output yet. Must accept any
  /// buffer. For an empty one, a transformer that holds back a complete unit outputs it. Cannot
  /// fail: a transformer reports what it detects through a callback passed at its creation.
  virtual void modifyData(ZPKMutableData* data) = 0;

  /// Drops the bytes that are held back and keeps the configuration. True for success; only a
  /// failure touches the slot. Called while the channel is closed.
  virtual bool reset(ZPKErrorPtr* error = nullptr) = 0;
};

/// A shared transformer; null where one could not be created.
using ZPKDataTransformerPtr = std::shared_ptr<ZPKDataTransformer>;
/// Transformers in the order in which they run.
using ZPKDataTransformerArray = std::vector<ZPKDataTransformerPtr>;

/// @name The factories of the transformers
/// Any thread may call them. Bytes that are passed are copied, so later changes to them do not
/// reach the transformer. A callback runs on the thread that calls modifyData or reset, before that
/// returns, and must not call the transformer. The transformers are not thread-safe: each belongs
/// to one path of one channel. A failure is null, domain "zephal-communication", code 3 unless
/// stated otherwise. reset returns true unless stated otherwise.
/// @{

/// Puts `prepend` in front of every chunk, an empty one included. Fails for null; empty bytes
/// change nothing.
ZPK_EXPORT ZPKDataTransformerPtr createPrependingTransformer(const ZPKDataPtr& prepend,
                                                             ZPKErrorPtr* error = nullptr);

/// Appends `data` to every chunk, an empty one included. Fails for null; empty bytes change
/// nothing. For bytes that can be replaced, see ZPKMutableDataAppendingTransformer.
ZPK_EXPORT ZPKDataTransformerPtr createAppendingTransformer(const ZPKDataPtr& data,
                                                            ZPKErrorPtr* error = nullptr);

/// Passes every chunk, even a null one, to `dataBlock`, which edits it in place. reset calls
/// `resetBlock`; if that is null, reset fails with domain "zephal-communication", code 6. The
/// factory fails for a null `dataBlock`.
ZPK_EXPORT ZPKDataTransformerPtr
createBlockTransformer(std::function<void(ZPKMutableData* data)> dataBlock,
                       std::function<void()> resetBlock, ZPKErrorPtr* error = nullptr);

/// Splits the stream into units that end with `pattern` and outputs one per call; an empty chunk is
/// enough to get the next unit. `removeTerminator` removes the pattern; then an empty unit looks
/// like no unit. Fails for a null or empty pattern. For a pattern that can be replaced, see
/// ZPKMutableDataAggregatorTransformer.
ZPK_EXPORT ZPKDataTransformerPtr createAggregatingTransformer(const ZPKDataPtr& pattern,
                                                              bool removeTerminator,
                                                              ZPKErrorPtr* error = nullptr);

/// Unpacks packets, each a big-endian size of `packetLengthEncoding` bytes followed by that many
/// bytes of payload, and outputs one payload per call; an empty chunk is enough to get the next.
///
/// The width should be 1 to 8. With a width of 0 or less the transformer holds back everything; a
/// width above 8 fails with code 12, since no size has that many bytes. Only the low 32 bits of a
/// size count, as a signed number: a size with bit 31 set is never reached, and everything is held
/// back until reset, without an error. An empty packet outputs empty data, as if nothing had
/// arrived.
ZPK_EXPORT ZPKDataTransformerPtr createPacketAggregatorTransformer(int32_t packetLengthEncoding,
                                                                   ZPKErrorPtr* error = nullptr);

/// Puts the size of each chunk in front of it, in the form that createPacketAggregatorTransformer
/// reads. A chunk that is too long for the field passes unchanged, without an error. An empty chunk
/// becomes a packet of size zero.
///
/// The width should be 1 to 8. With a width of 0 or less the transformer changes nothing; a width
/// above 8 fails with code 12.
ZPK_EXPORT ZPKDataTransformerPtr createPacketPrependTransformer(int32_t packetLengthEncoding,
                                                                ZPKErrorPtr* error = nullptr);

/// Removes every occurrence of `pattern` from the stream. Bytes that could begin one are held back
/// until later bytes decide. Fails for a null or empty pattern.
ZPK_EXPORT ZPKDataTransformerPtr createFilteringTransformer(const ZPKDataPtr& pattern,
                                                            ZPKErrorPtr* error = nullptr);

/// Calls `blk` at each occurrence of `pattern`, in order and with the bytes before it already in
/// the chunk; `removeData` removes the pattern. Bytes that could begin an occurrence are held back
/// until later bytes decide. If the end of a chunk could be several starts of the pattern, only the
/// shortest is held back, so a split occurrence of a pattern whose start repeats ("aab") can go
/// unnoticed. Fails for a null or empty pattern, then for a null `blk`.
ZPK_EXPORT ZPKDataTransformerPtr createEventGeneratorTransformer(const ZPKDataPtr& pattern,
                                                                 bool removeData,
                                                                 std::function<void()> blk,
                                                                 ZPKErrorPtr* error = nullptr);

/// Detects a pause in the traffic: calls `blk` in a modifyData that is called `timeout` seconds or
/// more after the previous one. Chunks do not change, and every chunk counts, even an empty one.
/// There is no timer, and setting the system's clock does not count as a pause. After a pause the
/// next call starts the measurement again; reset does not. Fails for a timeout of 0 or less, then
/// for a null `blk`. If the timeout is not a number, `blk` is never called.
ZPK_EXPORT ZPKDataTransformerPtr createTimeTransformer(double timeout, std::function<void()> blk,
                                                       ZPKErrorPtr* error = nullptr);

/// Holds back the stream until the regular expression (see ZPKRegex) matches, and then outputs
/// everything up to the end of the last match.
///
/// If a match ends at the end of the buffered bytes, they are output and also stay buffered, so
/// they are output again with the next match, until reset. The end of a match is counted in code
/// points but used as a number of bytes: after text that is not ASCII, the output ends before the
/// match does. After a byte that is not UTF-8 nothing matches, and everything is held back until
/// reset. With each new piece all buffered bytes are searched again, so a long response costs the
/// square of its length. If a call finds more than one match, it writes a log line at level 1.
///
/// Fails for a pattern that does not compile, and for null.
ZPK_EXPORT ZPKDataTransformerPtr createRegExpTransformer(std::optional<std::string_view> pattern,
                                                         ZPKErrorPtr* error = nullptr);

/// @}
