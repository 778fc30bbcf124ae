#pragma once

#include <string>
#include <string_view>

#include "Data Transformers/ZPKDataTransformer.h"
#include "FuzzInput.h"
#include "Require.h"
#include "Support/Bytes.h"
#include "ZephalLogging.h"

using support::chunkOf;
using support::dataOf;
using support::unitOf;

/// Drops the library's log lines, since nearly every input causes one.
inline void silenceLog() {
  static const bool isSilent = [] {
    ZPKLoggingSetSink([](int, std::string_view) {});
    return true;
  }();
  static_cast<void>(isSilent);
}

/// What a transformer leaves of a chunk. The input says how the chunk's memory is allocated.
inline std::string passed(ZPKDataTransformer& transformer, FuzzInput& input,
                          std::string_view bytes) {
  const ZPKMutableDataPtr chunk = input.flag() ? chunkOf(bytes) : unitOf(bytes);
  transformer.modifyData(chunk.get());
  return std::string(chunk->view());
}
