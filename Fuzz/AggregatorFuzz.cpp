// The aggregators and the appending transformer, with terminators that change: each chunk leaves
// what a plain search through everything that arrived leaves.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Data Transformers/ZPKMutableDataAggregatorTransformer.h"
#include "Data Transformers/ZPKMutableDataAppendingTransformer.h"
#include "FuzzInput.h"
#include "FuzzSupport.h"
#include "Models/CutterModel.h"

namespace {

constexpr const char* kLetters = "ab\r\n> ";

class Run {
 public:
  explicit Run(FuzzInput input)
      : _input(input), _first(_input.textOf(kLetters, 4)), _model{_first}, _fixedModel{_first} {
    _fixedModel.keepsTerminator = !_input.flag();
    _fixedModel.passesWithoutTerminator = false;
    _changing = ZPKMutableDataAggregatorTransformer::initWithTerminator(dataOf(_first));
    _fixed = createAggregatingTransformer(dataOf(_first), !_fixedModel.keepsTerminator);
    require((_fixed == nullptr) == _first.empty(), "only an empty pattern is refused");
    _buffer = _changing->buffer();
  }

  void run() {
    while (!_input.isUsedUp()) {
      step();
      require(_buffer->view() == _model.held && _changing->buffer() == _buffer,
              "the buffer has what the model holds");
    }
  }

 private:
  void step() {
    switch (_input.below(10)) {
      case 0: return changeTerminator();
      case 1: return editTerminator();
      case 2: return reset();
      case 3: return _changing->modifyData(nullptr);
      case 4: return append();
      case 5: return take("");
      default: return take(_input.textOf(kLetters));
    }
  }

  void changeTerminator() {
    _model.terminator = _input.textOf(kLetters, 3);
    _terminator = nullptr;
    if (_model.terminator.empty()) return _changing->setData2Find(nullptr);
    _terminator = chunkOf(_model.terminator);
    _changing->setData2Find(_terminator);
  }

  // The transformer keeps the reference that it was given, so it sees an edit.
  void editTerminator() {
    if (_terminator == nullptr) return;
    _model.terminator = _input.textOf(kLetters, 3);
    _terminator->setContents(*dataOf(_model.terminator));
  }

  void reset() {
    require(_changing->reset() && (_fixed == nullptr || _fixed->reset()), "a reset succeeds");
    _model.held.clear();
    _fixedModel.held.clear();
  }

  void take(const std::string& bytes) {
    require(passed(*_changing, _input, bytes) == _model.take(bytes), "the changing one agrees");
    if (_fixed == nullptr) return;
    require(passed(*_fixed, _input, bytes) == _fixedModel.take(bytes), "the fixed one agrees");
  }

  void append() {
    const std::string end = _input.textOf(kLetters, 5);
    const std::string bytes = _input.textOf(kLetters, 5);
    _appender->setDataToAppend(dataOf(end));
    require(passed(*_appender, _input, bytes) == bytes + end, "what is appended follows");
  }

  FuzzInput _input;
  const std::string _first;
  CutterModel _model;
  CutterModel _fixedModel;
  ZPKMutableDataAggregatorTransformerPtr _changing;
  ZPKDataTransformerPtr _fixed;
  ZPKMutableDataPtr _buffer;
  ZPKMutableDataPtr _terminator;  // null if the present one cannot be edited
  const ZPKMutableDataAppendingTransformerPtr _appender =
      ZPKMutableDataAppendingTransformer::initWithDataToAppend(nullptr);
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  silenceLog();
  Run(FuzzInput(bytes, size)).run();
  return 0;
}
