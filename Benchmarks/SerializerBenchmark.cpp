// The default serializer against a copy of the same bytes.
#include <ZephalIO/ZephalIO.h>

#include <cstdlib>
#include <cstring>
#include <functional>

#include "Benchmarks.h"
#include "Measure.h"

namespace {

constexpr int kEntries = 1000;
constexpr int kObjects = 50;
constexpr int kCopies = 5000;

ZPKValue valueOf(int i) {
  switch (i % 6) {
    case 0: return "text of entry " + std::to_string(i);
    case 1: return i * 1000;
    case 2: return i * 0.1;
    case 3: return i % 4 == 1;
    case 4: return ZPKData::dataWithString("bytes of entry " + std::to_string(i));
    default: return {{"low", i}, {"high", i * 1.5}, {"unit", "V"}};
  }
}

ZPKDictionaryPtr mixedDictionary() {
  ZPKDictionary::Entries entries;
  for (int i = 0; i < kEntries; ++i) entries.emplace_back("entry" + std::to_string(i), valueOf(i));
  return ZPKDictionary::init(std::move(entries));
}

double secondsEach(int count, const std::function<void()>& work) {
  const double seconds = secondsFor([&] {
    for (int i = 0; i < count; ++i) work();
  });
  return seconds / count;
}

// Into a heap block of its own, as an archive has.
void copy(const ZPKData& data) {
  void* block = std::malloc(data.length());
  std::memcpy(block, data.bytes(), data.length());
  asm volatile("" : : "r"(block) : "memory");
  std::free(block);
}

void run(const char* what, const ZPKData& archive, int rounds, const std::function<void()>& work) {
  const Contest contest = compareTimed(
      rounds, [&] { return secondsEach(kCopies, [&] { copy(archive); }); },
      [&] { return secondsEach(kObjects, work); });
  const double bytes = static_cast<double>(archive.length());
  printRow(what, "reported",
           number(contest.ratio, 4) + " (" + number(1 / contest.ours, 0) + " dictionaries/s, " +
               rate(bytes, contest.ours) + "; copy " + rate(bytes, contest.raw) + ")");
}

}  // namespace

void benchmarkSerializer(int rounds) {
  const ZPKDictionaryPtr dictionary = mixedDictionary();
  const auto serializer = ZPKDataDefaultSerializer::init();
  const ZPKDataPtr archive = serializer->serialize(dictionary);
  if (archive == nullptr) std::exit(1);
  if (!ZPKObjectsAreEqual(serializer->deserialize(archive), dictionary)) std::exit(1);
  printHeader("A dictionary of 1000 mixed entries, " + std::to_string(archive->length()) +
              " bytes, rate against a copy");
  run("serialize", *archive, rounds, [&] {
    if (serializer->serialize(dictionary) == nullptr) std::exit(1);
  });
  run("deserialize", *archive, rounds, [&] {
    if (serializer->deserialize(archive) == nullptr) std::exit(1);
  });
}
