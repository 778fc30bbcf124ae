// Bytes in chunks: how tests feed a transformer and cut what they feed.
#pragma once

#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "Data Transformers/ZPKDataTransformer.h"
#include "Support/Bytes.h"

namespace support {

using Chunks = std::vector<std::string>;

/// Hands a chunk with `bytes` to the transformer; what is left in it.
std::string passed(ZPKDataTransformer& transformer, std::string_view bytes);

/// What is left of each of several chunks.
Chunks passedInTurn(ZPKDataTransformer& transformer, const Chunks& chunks);

/// All chunks in one.
std::string joined(const Chunks& chunks);

/// Every way to cut `bytes` into chunks, none of them empty: "abc" as [abc], [a][bc], [ab][c] and
/// [a][b][c]. There are 2^(n-1), so `bytes` should be short.
std::vector<Chunks> everySplit(std::string_view bytes);

/// "[ab][c]", with escapes for what cannot be printed.
std::string pictureOf(const Chunks& chunks);

/// Up to `longest` letters, each one of `alphabet`.
std::string randomText(std::mt19937& random, std::string_view alphabet, size_t longest);

/// `bytes`, cut anywhere; some chunks are empty.
Chunks randomSplit(std::mt19937& random, std::string_view bytes);

}  // namespace support
