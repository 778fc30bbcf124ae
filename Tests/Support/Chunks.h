// Bytes in chunks: how tests feed a transformer and split its input.
#pragma once

#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "Data Transformers/ZPKDataTransformer.h"
#include "Support/Bytes.h"

namespace support {

using Chunks = std::vector<std::string>;

/// Passes a chunk with `bytes` to the transformer and returns what is left in it.
std::string passed(ZPKDataTransformer& transformer, std::string_view bytes);

/// What is left of each of several chunks.
Chunks passedInTurn(ZPKDataTransformer& transformer, const Chunks& chunks);

/// All chunks in one.
std::string joined(const Chunks& chunks);

/// Every way to split `bytes` into chunks, none of them empty: "abc" as [abc], [a][bc], [ab][c] and
/// [a][b][c]. There are 2^(n-1), so `bytes` should be short.
std::vector<Chunks> everySplit(std::string_view bytes);

/// "[ab][c]", with escapes for unprintable bytes.
std::string pictureOf(const Chunks& chunks);

/// A random string of up to `longest` letters from `alphabet`.
std::string randomText(std::mt19937& random, std::string_view alphabet, size_t longest);

/// `bytes`, split at random; some chunks are empty.
Chunks randomSplit(std::mt19937& random, std::string_view bytes);

}  // namespace support
