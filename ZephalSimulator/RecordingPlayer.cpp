#include "RecordingPlayer.h"

namespace zephal {

namespace {

std::string withoutLineEnd(std::string text) {
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

}  // namespace

RecordingPlayer::RecordingPlayer(const DeviceRecording& recording)
    : _exchanges(recording.exchanges()) {}

DeviceReaction RecordingPlayer::start(const DeviceBehaviour& /*behaviour*/) {
  endConnection();
  _next = 0;
  DeviceReaction reaction;
  if (!_exchanges.empty() && _exchanges[0].request.empty()) play(0, &reaction);
  return reaction;
}

DeviceReaction RecordingPlayer::take(std::string_view bytes, const DeviceBehaviour& /*behaviour*/) {
  keep(bytes);
  DeviceReaction reaction;
  while (!_pending.empty()) {
    const std::optional<size_t> index = arrived();
    if (index.has_value()) {
      const std::string& request = _exchanges[*index].request;
      reaction.commands.push_back(withoutLineEnd(request));
      _pending.erase(0, request.size());
      play(*index, &reaction);
    } else if (hasBegun() || !takeUnknown(&reaction)) {
      break;
    }
  }
  return reaction;
}

void RecordingPlayer::endConnection() {
  _pending.clear();
  _endsInReturn = false;
}

void RecordingPlayer::keep(std::string_view bytes) {
  for (const char byte : bytes) {
    const bool belongsToReturn = byte == '\n' && _endsInReturn;
    _endsInReturn = byte == '\r';
    if (!belongsToReturn) _pending += byte == '\r' ? '\n' : byte;
  }
}

// The exchange whose request has arrived: the expected one, then the ones after it, then those
// before. The expected one is waited for if it has begun to arrive.
std::optional<size_t> RecordingPlayer::arrived() const {
  const size_t count = _exchanges.size();
  for (size_t i = 0; i < count; ++i) {
    const size_t index = (_next + i) % count;
    const std::string& request = _exchanges[index].request;
    if (!request.empty() && _pending.starts_with(request)) return index;
    if (index == _next && request.starts_with(_pending)) return std::nullopt;
  }
  return std::nullopt;
}

// Whether a request may be on its way.
bool RecordingPlayer::hasBegun() const {
  for (const DeviceRecording::Exchange& exchange : _exchanges) {
    if (exchange.request.starts_with(_pending)) return true;
  }
  return false;
}

// False if the line is not whole yet.
bool RecordingPlayer::takeUnknown(DeviceReaction* reaction) {
  const size_t end = _pending.find('\n');
  if (end == std::string::npos) return false;
  const std::string line = _pending.substr(0, end);
  _pending.erase(0, end + 1);
  reaction->commands.push_back(line);
  reaction->unknownCommands.push_back(line);
  return true;
}

void RecordingPlayer::play(size_t index, DeviceReaction* reaction) {
  for (const DeviceRecording::Piece& piece : _exchanges[index].answer) {
    reaction->steps.push_back({.bytes = piece.bytes, .pause = piece.pause});
  }
  _next = index + 1;
}

}  // namespace zephal
