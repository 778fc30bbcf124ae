#include "DeviceRecording.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <utility>

#include "CheckedCall.h"
#include "RawLogEntry.h"

namespace zephal {

namespace {

std::string contentsOf(const std::string& path) {
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  std::string contents{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  if (!file.is_open() || file.bad()) throwFailure(errno, "open", path);
  return contents;
}

// Builds a conversation, entry by entry.
class Conversation {
 public:
  explicit Conversation(const RawLogOptions& options) : _options(options) {}

  void add(const RawLogEntry& entry) {
    if (entry.identifier != _options.identifier) return;
    const bool continues = _last.has_value() && _last->isWrite == entry.isWrite &&
                           _last->time == entry.time && _last->process == entry.process;
    if (entry.isWrite) {
      addRequest(entry, continues);
    } else {
      addAnswer(entry, continues);
    }
    _last = entry;
  }

  std::vector<DeviceRecording::Exchange> takeExchanges() { return std::move(_exchanges); }

 private:
  void addRequest(const RawLogEntry& entry, bool continues) {
    const bool isNew = !_last.has_value() || !_last->isWrite;
    if (isNew) _exchanges.emplace_back();
    std::string& request = _exchanges.back().request;
    if (continues) request += '\n';
    request += entry.text;
  }

  void addAnswer(const RawLogEntry& entry, bool continues) {
    if (_exchanges.empty()) _exchanges.emplace_back();
    if (isPromptOnItsOwn(entry)) continues = false;
    auto& answer = _exchanges.back().answer;
    if (!continues) answer.push_back({"", pauseBefore(entry)});
    std::string& bytes = answer.back().bytes;
    if (continues) bytes += _options.lineEnd;
    bytes += entry.text;
  }

  bool isPromptOnItsOwn(const RawLogEntry& entry) const {
    return !entry.text.empty() && entry.text == _options.prompt && _last.has_value() &&
           _last->text.empty();
  }

  // Never less than none: local time may be set back.
  std::chrono::milliseconds pauseBefore(const RawLogEntry& entry) const {
    constexpr std::chrono::milliseconds kNone{0};
    if (!_options.keepsPauses || !_last.has_value()) return kNone;
    return std::max(kNone, entry.time - _last->time);
  }

  const RawLogOptions& _options;
  std::vector<DeviceRecording::Exchange> _exchanges;
  std::optional<RawLogEntry> _last;
};

}  // namespace

DeviceRecording::DeviceRecording(std::vector<Exchange> exchanges)
    : _exchanges(std::move(exchanges)) {}

DeviceRecording DeviceRecording::fromRawLog(const std::string& path, const RawLogOptions& options) {
  const std::string log = contentsOf(path);
  Conversation conversation(options);
  std::string_view rest = log;
  while (!rest.empty()) {
    const size_t end = std::min(rest.find('\n'), rest.size());
    const std::optional<RawLogEntry> entry = RawLogEntry::of(rest.substr(0, end));
    if (entry.has_value()) conversation.add(*entry);
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  DeviceRecording recording(conversation.takeExchanges());
  if (!recording.exchanges().empty()) return recording;
  throw std::runtime_error("simulated device: " + path + " has no entries <" + options.identifier +
                           "--read> or <" + options.identifier + "-write>");
}

}  // namespace zephal
