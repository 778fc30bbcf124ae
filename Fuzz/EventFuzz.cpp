// Events and filters under random chunks: the same bytes and the same events, at the same places,
// as the contract's steps taken literally.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Data Transformers Internal/ZPIEventGenerationTransformer.h"
#include "FuzzInput.h"
#include "FuzzSupport.h"
#include "Models/EventModel.h"

namespace {

constexpr const char* kLetters = "aab";

class Run {
 public:
  explicit Run(FuzzInput input)
      : _input(input),
        _pattern(_input.textOf(kLetters, 6)),
        _removes(_input.flag()),
        _model(_pattern, _removes),
        _filterModel(_pattern, true),
        _events(ZPIEventGenerationTransformer::initWithData(
            dataOf(_pattern), [this] { _lengths.push_back(_chunk->length()); }, _removes)),
        _filter(createFilteringTransformer(dataOf(_pattern))) {
    require((_filter == nullptr) == _pattern.empty(), "only an empty pattern is refused");
  }

  void run() {
    while (!_input.isUsedUp()) {
      if (_input.below(16) == 0) {
        reset();
      } else {
        take(_input.textOf(kLetters, 12));
      }
    }
  }

 private:
  void reset() {
    require(_events->reset(nullptr) && (_filter == nullptr || _filter->reset()),
            "a reset succeeds");
    _model.reset();
    _filterModel.reset();
  }

  void take(const std::string& bytes) {
    _chunk = _input.flag() ? chunkOf(bytes) : unitOf(bytes);
    _events->modifyData(_chunk.get());
    require(_chunk->view() == _model.take(bytes), "the result is the model's");
    require(_lengths == _model.events(), "the events are the model's");
    if (_filter == nullptr) return;
    require(passed(*_filter, _input, bytes) == _filterModel.take(bytes), "the filter agrees");
  }

  FuzzInput _input;
  const std::string _pattern;
  const bool _removes;
  EventModel _model;
  EventModel _filterModel;
  ZPKMutableDataPtr _chunk;
  std::vector<size_t> _lengths;  // of the result at each event
  const ZPIEventGenerationTransformerPtr _events;
  const ZPKDataTransformerPtr _filter;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  silenceLog();
  Run(FuzzInput(bytes, size)).run();
  return 0;
}
