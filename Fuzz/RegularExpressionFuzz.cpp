// The transformer for regular expressions under random chunks, against a backtracking search that
// is written out: results, what is held back, and the notice about several matches.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzInput.h"
#include "FuzzSupport.h"
#include "Models/RegexModel.h"
#include "Models/TextModel.h"
#include "Utility/ZPKRegex.h"

namespace {

// Lets no text become so long that the plain search takes long.
constexpr size_t kLongestHeld = 48;

size_t notices = 0;

void countNotices() {
  notices = 0;
  static const bool isSet = [] {
    ZPKLoggingSetSink([](int level, std::string_view line) {
      const bool isNotice = line.find("more than one match found") != std::string_view::npos;
      if (level == 1 && isNotice) ++notices;
    });
    return true;
  }();
  static_cast<void>(isSet);
}

class Run {
 public:
  explicit Run(FuzzInput input) : _input(input), _model(_input, U"abcé", U"\r\n") {
    _transformer = createRegExpTransformer(_model.pattern());
    require(_transformer != nullptr, "the pattern compiles");
  }

  void run() {
    while (!_input.isUsedUp() && _held.size() < kLongestHeld) {
      if (_input.below(16) == 0) {
        require(_transformer->reset(), "a reset succeeds");
        _held.clear();
      } else {
        take(chunk());
      }
    }
  }

 private:
  // Text, in which a two-byte character can be cut; now and then any bytes.
  std::string chunk() {
    return _input.below(16) == 0 ? _input.text(4) : _input.textOf("aaabbc\xc3\xa9\r\n", 10);
  }

  void take(const std::string& bytes) {
    const size_t noticesBefore = notices;
    const std::string result = passed(*_transformer, _input, bytes);
    require(result == expected(bytes), "the result is the model's");
    require((notices > noticesBefore) == _hasSeveral, "several matches are noticed");
    compareAll();
  }

  // The end of the last match counts characters, and is used to count bytes.
  std::string expected(const std::string& bytes) {
    _held += bytes;
    _hasSeveral = false;
    const auto text = decodedUTF8(_held);
    if (!text.has_value()) return "";
    const std::vector<RegexModel::Match> matches = _model.allMatches(*text);
    if (matches.empty()) return "";
    _hasSeveral = matches.size() > 1;
    const std::string result = _held.substr(0, matches.back().second);
    if (_held.size() > result.size()) _held.erase(0, result.size());
    return result;
  }

  // The places of all matches, which the transformer does not show.
  void compareAll() const {
    const auto text = decodedUTF8(_held);
    const auto found = ZPKRegex::initWithPattern(_model.pattern())->allMatches(_held);
    std::vector<RegexModel::Match> matches;
    if (text.has_value()) matches = _model.allMatches(*text);
    require(found.size() == matches.size(), "the number of matches is the model's");
    for (size_t i = 0; i < found.size(); ++i) {
      const ZPKRange range = found[i].range();
      require(range.location == matches[i].first &&
                  range.length == matches[i].second - matches[i].first,
              "the matches are the model's");
    }
  }

  FuzzInput _input;
  RegexModel _model;
  ZPKDataTransformerPtr _transformer;
  std::string _held;
  bool _hasSeveral = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  countNotices();
  try {
    Run(FuzzInput(bytes, size)).run();
  } catch (const RegexModel::TooManySteps&) {
  }
  return 0;
}
