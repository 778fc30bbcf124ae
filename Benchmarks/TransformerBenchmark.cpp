// Transformers on chunks in memory, against the minimum that such work can cost.
#include <ZephalIO/ZephalIO.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "Benchmarks.h"
#include "Measure.h"
#include "RawRegex.h"

namespace {

constexpr size_t kBytes = 16 * 1024 * 1024;
// Chunks are made in batches of this size, which stay in the processor's cache, as bytes that have
// just been read do.
constexpr size_t kBatch = 256 * 1024;
constexpr size_t kField = 4;  // the size in front of a packet

using Pieces = std::vector<std::string_view>;
using Work = std::function<void(ZPKMutableData& chunk)>;

// Lines of lower-case words, the same in every run.
std::string consoleText(size_t length) {
  std::minstd_rand random(1);
  std::string text(length, ' ');
  for (char& letter : text) {
    const unsigned drawn = static_cast<unsigned>(random() >> 8) % 32;
    letter = drawn < 26 ? static_cast<char>('a' + drawn) : drawn == 26 ? '\n' : ' ';
  }
  return text;
}

// Writes `mark` into the text so that every `distance` bytes end in it and one more letter.
void mark(std::string& text, size_t distance, std::string_view mark) {
  for (size_t end = distance; end <= text.size(); end += distance) {
    text.replace(end - 1 - mark.size(), mark.size(), mark);
  }
}

Pieces cut(std::string_view text, size_t length) {
  Pieces pieces;
  for (size_t at = 0; at < text.size(); at += length) pieces.push_back(text.substr(at, length));
  return pieces;
}

// The seconds that the work takes for all pieces, each in a buffer of its own. Creating and
// releasing the buffers is not counted.
double secondsOver(const Pieces& pieces, const Work& work) {
  double seconds = 0;
  std::vector<ZPKMutableDataPtr> batch;
  for (size_t next = 0; next < pieces.size();) {
    batch.clear();
    for (size_t bytes = 0; bytes < kBatch && next < pieces.size(); bytes += pieces[next++].size()) {
      batch.push_back(ZPKMutableData::dataWithBytes(pieces[next].data(), pieces[next].size()));
    }
    seconds += secondsFor([&] {
      for (const ZPKMutableDataPtr& chunk : batch) work(*chunk);
    });
  }
  return seconds;
}

struct Row {
  std::string what;
  const char* rawName;
  Pieces pieces;
};

void run(const Row& row, int rounds, const Work& raw, const Work& ours) {
  const Contest contest = compareTimed(
      rounds, [&] { return secondsOver(row.pieces, raw); },
      [&] { return secondsOver(row.pieces, ours); });
  size_t bytes = 0;
  for (const std::string_view piece : row.pieces) bytes += piece.size();
  const double count = static_cast<double>(bytes);
  printRow(row.what + ", against " + row.rawName, "reported",
           number(contest.ratio, 3) + " (" + row.rawName + " " + rate(count, contest.base) +
               ", transformer " + rate(count, contest.ours) + ")");
}

size_t countByMemmem(std::string_view text, std::string_view pattern) {
  size_t count = 0;
  while (const void* found = ::memmem(text.data(), text.size(), pattern.data(), pattern.size())) {
    ++count;
    text.remove_prefix(static_cast<size_t>(static_cast<const char*>(found) - text.data()) +
                       pattern.size());
  }
  return count;
}

// memcpy, `length` bytes at a time.
Work copying(size_t length) {
  return [length, target = std::vector<char>(length)](ZPKMutableData& chunk) mutable {
    for (std::string_view rest = chunk.view(); !rest.empty();) {
      const size_t count = std::min(length, rest.size());
      std::memcpy(target.data(), rest.data(), count);
      asm volatile("" : : "r"(target.data()) : "memory");
      rest.remove_prefix(count);
    }
  };
}

void expect(bool condition) {
  if (condition) return;
  std::fputs("a transformer did not do the work that is measured\n", stderr);
  std::exit(1);
}

void runEvents(size_t length, int rounds) {
  constexpr std::string_view kEvent = "panic!";
  std::string text = consoleText(kBytes);
  mark(text, 1024, kEvent);
  const std::string what =
      "events, one a KiB, in chunks of " + std::to_string(length / 1024) + " KiB";
  size_t events = 0;
  const auto transformer = createEventGeneratorTransformer(ZPKData::dataWithString(kEvent), false,
                                                           [&events] { ++events; });
  size_t found = 0;
  run(
      {what, "memmem", cut(text, length)}, rounds,
      [&](ZPKMutableData& chunk) { found += countByMemmem(chunk.view(), kEvent); },
      [&](ZPKMutableData& chunk) { transformer->modifyData(&chunk); });
  expect(events == found && events % (kBytes / 1024) == 0);
}

// Packets, each prefixed with its size.
std::string packetStream(size_t payload) {
  const std::string text = consoleText(payload);
  std::string stream;
  while (stream.size() < kBytes) {
    for (size_t shift = 8 * kField; shift > 0; shift -= 8) {
      stream += static_cast<char>(payload >> (shift - 8) & 0xFF);
    }
    stream += text;
  }
  return stream;
}

void runAggregator(size_t payload, int rounds) {
  const std::string stream = packetStream(payload);
  const auto transformer = createPacketAggregatorTransformer(kField);
  size_t packets = 0;
  const Work ours = [&](ZPKMutableData& chunk) {
    for (transformer->modifyData(&chunk); chunk.length() > 0; transformer->modifyData(&chunk)) {
      expect(chunk.length() == payload);
      ++packets;
      chunk.setLength(0);
    }
  };
  run({"packets of " + std::to_string(payload) + " bytes, taken from 64 KiB chunks", "memcpy",
       cut(stream, 65536)},
      rounds, copying(payload + kField), ours);
  expect(packets > 0 && packets % (stream.size() / (payload + kField)) == 0);
}

void runPrepender(size_t payload, int rounds) {
  const std::string text = consoleText(kBytes);
  const Pieces pieces = cut(std::string_view(text).substr(0, kBytes / payload * payload), payload);
  const auto transformer = createPacketPrependTransformer(kField);
  run({"packets of " + std::to_string(payload) + " bytes, size put in front", "memcpy", pieces},
      rounds, copying(payload), [&](ZPKMutableData& chunk) {
        transformer->modifyData(&chunk);
        expect(chunk.length() == payload + kField);
      });
}

void runRegex(size_t length, bool checksText, int rounds) {
  constexpr std::string_view kPattern = "value=[0-9]+ V";
  std::string text = consoleText(kBytes);
  mark(text, length, "value=1234 V");
  const auto transformer = createRegExpTransformer(kPattern);
  const RawRegex regex(kPattern, checksText);
  size_t matches = 0;
  run(
      {"expression, one match in each chunk of " + std::to_string(length / 1024) + " KiB",
       checksText ? "PCRE2 alone" : "PCRE2 that does not check for UTF-8", cut(text, length)},
      rounds, [&](ZPKMutableData& chunk) { matches += regex.countMatches(chunk.view()); },
      [&](ZPKMutableData& chunk) {
        transformer->modifyData(&chunk);
        expect(chunk.length() >= length - 1);
      });
  expect(matches > 0 && matches % (kBytes / length) == 0);
}

// What a chunk of 80 bytes costs on its way through filters that find nothing.
void runFilters(size_t count, const char* goal, int rounds) {
  constexpr size_t kChunk = 80;
  const std::string text = consoleText(kBytes / count);
  const Pieces pieces =
      cut(std::string_view(text).substr(0, text.size() / kChunk * kChunk), kChunk);
  std::vector<ZPKDataTransformerPtr> filters(count, nullptr);
  for (auto& filter : filters) {
    filter = createFilteringTransformer(ZPKData::dataWithString("\033[0m"));
  }
  std::vector<double> seconds;
  for (int round = 0; round < rounds; ++round) {
    seconds.push_back(secondsOver(pieces, [&](ZPKMutableData& chunk) {
      for (const auto& filter : filters) filter->modifyData(&chunk);
      expect(chunk.length() == kChunk);
    }));
  }
  printRow(std::to_string(count) + (count == 1 ? " filter" : " filters") +
               " without a match, a chunk of 80 bytes",
           goal, number(median(seconds) / static_cast<double>(pieces.size()) * 1e9, 1) + " ns");
}

}  // namespace

void benchmarkTransformers(int rounds) {
  printHeader("Transformers in memory, bytes per second against plain functions");
  constexpr size_t kChunks[] = {4096, 65536};
  constexpr size_t kPayloads[] = {100, 1024, 16384};
  runFilters(1, "12 ns", rounds);
  runFilters(32, "421 ns", rounds);
  for (const size_t length : kChunks) runEvents(length, rounds);
  for (const size_t payload : kPayloads) runAggregator(payload, rounds);
  for (const size_t payload : kPayloads) runPrepender(payload, rounds);
  for (const bool checksText : {true, false}) {
    for (const size_t length : kChunks) runRegex(length, checksText, rounds);
  }
}
