#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Data Transformers/ZPKDataTransformer.h"

namespace support {

/// A transformer that does what a test tells it and records the chunks it is given. Not
/// thread-safe.
class ScriptedTransformer final : public ZPKDataTransformer {
 public:
  using Edit = std::function<void(ZPKMutableData* data)>;

  /// With a null edit the chunks pass unchanged.
  explicit ScriptedTransformer(Edit edit) : _edit(std::move(edit)) {}

  static std::shared_ptr<ScriptedTransformer> make(Edit edit = nullptr) {
    return std::make_shared<ScriptedTransformer>(std::move(edit));
  }
  /// Appends `bytes` to every chunk, so that the output shows the order of the transformers.
  static std::shared_ptr<ScriptedTransformer> adding(std::string bytes) {
    return make([bytes = std::move(bytes)](ZPKMutableData* data) {
      data->append(bytes.data(), bytes.size());
    });
  }
  static std::shared_ptr<ScriptedTransformer> emptying() {
    return make([](ZPKMutableData* data) { data->setLength(0); });
  }

  /// Called at each reset, before it returns.
  void setOnReset(std::function<void()> onReset) { _onReset = std::move(onReset); }
  void setResetResult(bool result, ZPKErrorPtr error = nullptr) {
    _resetResult = result;
    _resetError = std::move(error);
  }

  /// The chunks as they arrived.
  const std::vector<std::string>& chunks() const { return _chunks; }
  int resets() const { return _resets; }

  void modifyData(ZPKMutableData* data) override {
    _chunks.emplace_back(data->view());
    if (_edit) _edit(data);
  }

  bool reset(ZPKErrorPtr* error = nullptr) override {
    ++_resets;
    if (_onReset) _onReset();
    if (!_resetResult && error != nullptr) *error = _resetError;
    return _resetResult;
  }

 private:
  const Edit _edit;
  std::function<void()> _onReset;
  bool _resetResult = true;
  ZPKErrorPtr _resetError;
  std::vector<std::string> _chunks;
  int _resets = 0;
};

}  // namespace support
