// The text of log chunks, against the replacements that the documentation lists, one after another.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Data Channel Internal/ZPILogChunk.h"
#include "FuzzInput.h"
#include "FuzzSupport.h"
#include "Models/TextModel.h"
#include "Utility/ZPKDataConversionFunctions.h"

namespace {

std::string chunkOfLog(const std::string& prefix, const std::string& bytes) {
  std::string body = replacedAll(readableText(bytes), "\r\n", "\n");
  body = replacedAll(body, "\r", "\n");
  return prefix + replacedAll(body, "\n", prefix);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  FuzzInput input(bytes, size);
  const std::string time = "\n" + input.textOf("2024-05-01 12:00:00.250", 8) + " <";
  const std::string identifier = input.textOf("pre-read\n\r", 10);
  const std::string process = ZPILogProcess(static_cast<int>(input.number(2)));
  const ZPILogPrefix prefix{time, identifier, process};
  ZPIHeapVector<char> log;
  std::string expected;
  while (!input.isUsedUp()) {
    const std::string text = input.flag() ? input.text(255) : input.textOf("a\r\n\n", 40);
    ZPIAppendLogChunk(prefix, ZPKDataToString(dataOf(text)), log);
    expected += chunkOfLog(time + identifier + process, text);
    require(std::string_view(log.data(), log.size()) == expected, "the log is the model's");
  }
  return 0;
}
