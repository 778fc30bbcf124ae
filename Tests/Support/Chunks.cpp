#include "Support/Chunks.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace support {

std::string passed(ZPKDataTransformer& transformer, std::string_view bytes) {
  const ZPKMutableDataPtr chunk = chunkOf(bytes);
  transformer.modifyData(chunk.get());
  return std::string(chunk->view());
}

Chunks passedInTurn(ZPKDataTransformer& transformer, const Chunks& chunks) {
  Chunks results;
  for (const std::string& chunk : chunks) results.push_back(passed(transformer, chunk));
  return results;
}

std::string joined(const Chunks& chunks) {
  std::string all;
  for (const std::string& chunk : chunks) all += chunk;
  return all;
}

std::vector<Chunks> everySplit(std::string_view bytes) {
  if (bytes.empty()) return {{}};
  std::vector<Chunks> splits;
  const size_t borders = bytes.size() - 1;
  for (size_t cuts = 0; cuts < size_t{1} << borders; ++cuts) {
    Chunks chunks{std::string(1, bytes.front())};
    for (size_t border = 0; border < borders; ++border) {
      if ((cuts >> border & 1) != 0) chunks.emplace_back();
      chunks.back().push_back(bytes[border + 1]);
    }
    splits.push_back(std::move(chunks));
  }
  return splits;
}

std::string pictureOf(const Chunks& chunks) {
  std::string picture;
  for (const std::string& chunk : chunks) {
    const std::string quoted = testing::PrintToString(chunk);
    picture += "[" + quoted.substr(1, quoted.size() - 2) + "]";
  }
  return picture;
}

std::string randomText(std::mt19937& random, std::string_view alphabet, size_t longest) {
  std::string text(random() % (longest + 1), ' ');
  for (char& letter : text) letter = alphabet[random() % alphabet.size()];
  return text;
}

Chunks randomSplit(std::mt19937& random, std::string_view bytes) {
  Chunks chunks;
  while (!bytes.empty()) {
    const size_t length = std::min<size_t>(random() % 6, bytes.size());
    chunks.emplace_back(bytes.substr(0, length));
    bytes.remove_prefix(length);
  }
  return chunks;
}

}  // namespace support
