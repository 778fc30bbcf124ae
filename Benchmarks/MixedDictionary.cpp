#include "MixedDictionary.h"

#include <string>

namespace {

constexpr int kEntries = 1000;

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

}  // namespace

ZPKDictionaryPtr mixedDictionary() {
  ZPKDictionary::Entries entries;
  for (int i = 0; i < kEntries; ++i) entries.emplace_back("entry" + std::to_string(i), valueOf(i));
  return ZPKDictionary::init(std::move(entries));
}
