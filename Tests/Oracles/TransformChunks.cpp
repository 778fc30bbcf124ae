// Passes chunks to a transformer, for python-oracle. Each line of the input is an order:
//
//     KIND PATTERN CHUNK...
//
// KIND is "regex", "keep" or "remove" (an aggregator that keeps or removes its terminator); the
// rest is hexadecimal, "-" for nothing. The answer is a line with what is left of each chunk.
#include <iostream>
#include <sstream>
#include <string>

#include "ZephalIO/ZPKDataConversionFunctions.h"
#include "ZephalIO/ZPKDataTransformer.h"
#include "ZephalLogging/ZephalLogging.h"

namespace {

ZPKDataPtr bytesOf(const std::string& word) {
  return word == "-" ? ZPKData::data() : ZPKDataFromHexString(word);
}

std::string wordOf(const ZPKDataPtr& bytes) {
  return bytes->length() == 0 ? "-" : ZPKHexStringFromData(bytes, false);
}

ZPKDataTransformerPtr makeTransformer(const std::string& kind, const ZPKDataPtr& pattern) {
  if (kind == "regex") return createRegExpTransformer(pattern->string());
  return createAggregatingTransformer(pattern, kind == "remove");
}

std::string answerTo(const std::string& order) {
  std::istringstream words(order);
  std::string kind;
  std::string word;
  words >> kind >> word;
  const ZPKDataTransformerPtr transformer = makeTransformer(kind, bytesOf(word));
  if (transformer == nullptr) return "refused";
  std::string answer;
  while (words >> word) {
    const ZPKMutableDataPtr chunk = bytesOf(word)->mutableCopy();
    transformer->modifyData(chunk.get());
    answer += wordOf(chunk) + " ";
  }
  return answer;
}

}  // namespace

int main() {
  ZPKLoggingSetSink([](int, std::string_view) {});
  for (std::string order; std::getline(std::cin, order);) std::cout << answerTo(order) << "\n";
  return 0;
}
