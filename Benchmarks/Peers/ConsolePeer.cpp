#include "Peers/ConsolePeer.h"

namespace {

zephal::ConsoleOptions optionsFor(const Conversation& conversation) {
  zephal::ConsoleOptions options;
  options.prompt = conversation.delimiter;
  options.timeout = std::chrono::seconds(kPeerTimeout);
  // By default, the oldest bytes of 16 MiB and a prompt would be dropped.
  if (conversation.traffic == Conversation::Traffic::LongResponses) options.limit += 1 << 20;
  return options;
}

}  // namespace

ConsolePeer::ConsolePeer(const Conversation& conversation)
    : _asks(!conversation.isBulk()),
      _delimiter(conversation.delimiter),
      _console(conversation.device.url(), optionsFor(conversation)) {}

void ConsolePeer::write(std::string_view command) {
  if (_asks) {
    _command = command;
  } else {
    _console.send(command);
  }
}

size_t ConsolePeer::readResponse() {
  const std::string response = _asks ? _console.ask(_command) : _console.expect(_delimiter).before;
  useBytes(response.data());
  return response.size() + _delimiter.source().size();
}
