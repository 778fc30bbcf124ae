#include <ZephalIO/ZephalIO.h>

#include <cstdio>
#include <memory>
#include <string>

// Turns CR LF into LF, wherever the stream is split, and leaves other carriage returns alone.
class PlainLineFeeds final : public ZPKDataTransformer {
 public:
  void modifyData(ZPKMutableData* data) override {
    if (data == nullptr) return;
    _text += data->view();
    for (size_t at = 0; (at = _text.find("\r\n", at)) != std::string::npos;) _text.erase(at, 1);
    // A carriage return at the end is held back until the next byte decides.
    const size_t whole = _text.size() - (_text.ends_with('\r') ? 1 : 0);
    data->setLength(0);
    data->append(_text.data(), whole);
    _text.erase(0, whole);
  }

  bool reset(ZPKErrorPtr*) override {
    _text.clear();
    return true;
  }

 private:
  std::string _text;
};

// own-transformer URL
int main(int, char** arguments) {
  ZPKErrorPtr error;
  auto stack = ZPKCommStack::init();
  stack->setDelimiter("# ", &error);
  stack->setReadFilterTransformers(ZPKDataTransformerArray{std::make_shared<PlainLineFeeds>()});
  if (!stack->createStackWithURL(arguments[1], &error) ||
      !stack->openWithTimeout(std::nullopt, &error)) {
    std::printf("cannot open %s\n", arguments[1]);
    return 1;
  }
  const auto answer = stack->sendCommandString("progress", 10.0, &error);
  std::printf("%s\n", answer.value_or("no answer").c_str());
  return stack->close(&error) && answer.has_value() ? 0 : 1;
}
