// The default serializer against a copy of the same bytes.
#include <ZephalIO/ZephalIO.h>

#include <cstdlib>
#include <cstring>
#include <functional>

#include "Benchmarks.h"
#include "Measure.h"
#include "MixedDictionary.h"

namespace {

constexpr int kObjects = 50;
constexpr int kCopies = 5000;

double secondsEach(int count, const std::function<void()>& work) {
  const double seconds = secondsFor([&] {
    for (int i = 0; i < count; ++i) work();
  });
  return seconds / count;
}

// Into a heap block of its own, like an archive.
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
