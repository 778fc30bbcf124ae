// The default serializer against two others that write and read the same archive.
#include <ZephalIO/ZephalIO.h>

#include <cstdlib>
#include <functional>
#include <optional>
#include <string>

#include "Benchmarks.h"
#include "Measure.h"
#include "MixedDictionary.h"
#include "PeerArchive.h"

namespace {

constexpr size_t kObjects = 100;
// Against the faster of the two peers.
constexpr const char* kWriteGoal = "1.5";
constexpr const char* kReadGoal = "3.0";

void repeat(const std::function<void()>& work) {
  for (size_t i = 0; i < kObjects; ++i) work();
}

void run(const std::string& what, const char* goal, int rounds, const char* name,
         const std::function<void()>& peer, const std::function<void()>& ours) {
  const Contest contest = compare(
      rounds, [&] { repeat(peer); }, [&] { repeat(ours); });
  printRow(what, goal, eachOf(contest, kObjects, name, "ZephalIO"));
}

void runAgainst(const char* name, const std::optional<PeerArchive>& peer,
                const ZPKDictionaryPtr& dictionary, const ZPKDataPtr& archive, int rounds) {
  const std::string written = std::string("written, rate against ") + name;
  const std::string read = std::string("read, rate against ") + name;
  if (!peer.has_value()) {
    printMissing(written, kWriteGoal);
    return printMissing(read, kReadGoal);
  }
  const auto serializer = ZPKDataDefaultSerializer::init();
  run(written, kWriteGoal, rounds, name, peer->write, [&] {
    if (serializer->serialize(dictionary) == nullptr) std::exit(1);
  });
  run(read, kReadGoal, rounds, name, peer->read, [&] {
    if (serializer->deserialize(archive) == nullptr) std::exit(1);
  });
}

}  // namespace

void benchmarkSerializer(int rounds) {
  const ZPKDictionaryPtr dictionary = mixedDictionary();
  const auto serializer = ZPKDataDefaultSerializer::init();
  const ZPKDataPtr archive = serializer->serialize(dictionary);
  if (archive == nullptr) std::exit(1);
  if (!ZPKObjectsAreEqual(serializer->deserialize(archive), dictionary)) std::exit(1);
  printHeader("A dictionary of 1,000 mixed entries, " + std::to_string(archive->length()) +
              " bytes of CBOR");
  runAgainst("nlohmann-json", nlohmannArchive(archive->view()), dictionary, archive, rounds);
  runAgainst("libcbor", libcborArchive(archive->view()), dictionary, archive, rounds);
}
