#include <ZephalIO/ZephalIO.h>

#include <algorithm>

#include "Hostile/Work.h"

namespace {

using Factory = std::function<ZPKDataTransformerPtr()>;

// Short, so that what is done again for each piece shows.
constexpr size_t kPiece = 64;
// Every "a" of a flood may begin it.
constexpr const char* kNearlyRepeated = "aaaaaaab";

ZPKDataPtr data(const std::string& text) { return ZPKData::dataWithString(text); }

// Passes the flood on in pieces and takes out all the units that are complete, unless they would
// never end. Returns how many bytes came out.
size_t feed(ZPKDataTransformer& transformer, const std::string& text, bool takesAllUnits) {
  size_t returned = 0;
  for (size_t at = 0; at < text.size(); at += kPiece) {
    const size_t count = std::min(kPiece, text.size() - at);
    const ZPKMutableDataPtr chunk = ZPKMutableData::dataWithBytes(text.data() + at, count);
    transformer.modifyData(chunk.get());
    while (takesAllUnits && chunk->length() > 0) {
      returned += chunk->length();
      chunk->setLength(0);
      transformer.modifyData(chunk.get());
    }
  }
  return returned;
}

Work work(const std::string& layer, const std::string& name, const std::string& bytes,
          const Factory& make, bool takesAllUnits = true) {
  return {layer, name, bytes, [=](const std::string& text) {
            const ZPKDataTransformerPtr transformer = make();
            require(transformer != nullptr, "no transformer");
            const size_t returned = feed(*transformer, text, takesAllUnits);
            require(returned <= text.size(), "more bytes came out than arrived");
          }};
}

void addTextFloods(const std::string& layer, const std::string& nearMiss, const Factory& make,
                   Works* works) {
  works->push_back(work(layer, "no delimiter", "x", make));
  works->push_back(work(layer, "line feeds", "\n", make));
  works->push_back(work(layer, "near misses", nearMiss, make));
  works->push_back(work(layer, "escapes without end", "\x1b[1;", make));
  works->push_back(work(layer, "invalid UTF-8", "\xff\xc3(\xe2\x82", make));
  works->push_back(work(layer, "NULs", std::string(1, '\0'), make));
}

ZPKDataTransformerPtr swapDetector() {
  const auto detector = ZPKECIDSwapDetectTransformer::initWithSwapAction(
      [](const std::string&, const std::string&) {});
  detector->setExpectedECID(ZPKNumber(uint64_t{0x123456789}));
  return detector;
}

void addPackets(Works* works) {
  for (const int32_t width : {1, 2, 4, 8}) {
    const auto make = [width] { return createPacketAggregatorTransformer(width); };
    const std::string layer = "packets, width " + std::to_string(width);
    works->push_back(work(layer, "sizes of 0", std::string(1, '\0'), make));
    works->push_back(work(layer, "sizes of 1",
                          std::string(static_cast<size_t>(width) - 1, '\0') + "\x01x", make));
    works->push_back(work(layer, "the largest size", "\x7f\xff\xff\xff", make));
    works->push_back(work(layer, "negative sizes", "\xff", make));
  }
}

// All that is held is searched again with every piece, so these floods are short.
void addExpressions(Works* works) {
  const auto add = [works](const char* pattern, const char* name, const std::string& bytes) {
    works->push_back(
        {std::string("expression ") + pattern, name, bytes, [pattern](const std::string& text) {
           feed(*createRegExpTransformer(pattern), text.substr(0, text.size() / 4), false);
         }});
  };
  add("=> $", "no delimiter", "x");
  add("=> $", "near misses", "=>");
  add("=> $", "line feeds", "\n");
  add("=> $", "invalid UTF-8", "\xff");
  add("x+y", "near misses", "x");
  add("(x|xx)+y", "near misses", "x");
  add("\\n", "line feeds", "\n");
}

}  // namespace

Works transformerWorks() {
  Works works;
  const ZPKDataPtr pattern = data(kNearlyRepeated);
  addTextFloods(
      "aggregator", "a", [=] { return createAggregatingTransformer(pattern, false); }, &works);
  addTextFloods(
      "aggregator, line feed", "\r", [] { return createAggregatingTransformer(data("\n"), true); },
      &works);
  addTextFloods(
      "filter", "a", [=] { return createFilteringTransformer(pattern); }, &works);
  addTextFloods(
      "filter, line feed", "\r", [] { return createFilteringTransformer(data("\n")); }, &works);
  addTextFloods(
      "event", "a", [=] { return createEventGeneratorTransformer(pattern, false, [] {}); }, &works);
  addTextFloods("swap detector", "[12345678:1234567] :-) ", swapDetector, &works);
  works.push_back(work("swap detector", "other devices", "[12345678:12345678] :-) ", swapDetector));
  addPackets(&works);
  addExpressions(&works);
  return works;
}
