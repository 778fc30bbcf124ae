#include "Soak/Device.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

namespace soak {

namespace {

using std::chrono::milliseconds;

// A cut waits so long for the station to read what comes before it.
constexpr milliseconds kPatience{1000};

}  // namespace

Device::Device(int number, zephal::DevicePlace place, DeviceHabits habits, uint64_t seed,
               DeviceState* state)
    : _number(number),
      _habits(habits),
      _state(state),
      _random(seed),
      _line(std::move(place)),
      _commands(number, true, true) {
  _line.appear();
  if (_line.descriptor() >= 0) beginConnection();
}

int Device::descriptor() const {
  return _line.descriptor() >= 0 ? _line.descriptor() : _line.acceptor();
}

Clock::time_point Device::due() const {
  if (_isAway) return _isBackAt;
  if (_steps.empty()) return Clock::time_point::max();
  return _stepBegan + _steps.front().pause;
}

void Device::advance(Clock::time_point now, bool canRead) {
  if (_state->renewalsWanted != _state->renewalsDone) renew();
  if (_isAway) {
    if (now < _isBackAt) return;
    _isAway = false;
    _line.appear();
    if (_line.descriptor() >= 0) beginConnection();
  }
  if (!_isConnected && _line.acceptor() >= 0 && canRead && _line.accept()) beginConnection();
  if (_isConnected && canRead) receive();
  const uint32_t silence = _state->silenceWanted;
  const bool mayTalk = _habits.talks && silence == 0;
  if (_isConnected && mayTalk && _steps.empty() && _out.empty()) talk();
  perform(now);
  send();
  publish();
  if (!_state->isBusy) _state->silenceReached = silence;
}

void Device::publish() {
  // In this order: whoever sees that the device is idle sees all that it sent.
  if (_out.empty()) _state->tokensSent = _nextToken;
  _state->isBusy = !_out.empty() || !_steps.empty();
}

void Device::beginConnection() {
  _isConnected = true;
  _nextToken = 0;
  _commands.startConnection();
  _state->commandsSeen = 0;
  _state->tokensSent = 0;
  _state->connection = ++_connection;
}

void Device::endConnection() {
  _isConnected = false;
  _out.clear();
  _steps.clear();
  _commands.startConnection();
}

void Device::renew() {
  _line.disappear();
  endConnection();
  _isAway = false;
  _line.appear();
  if (_line.descriptor() >= 0) beginConnection();
  publish();
  _state->renewalsDone = _state->renewalsWanted.load();
}

void Device::receive() {
  const std::optional<std::string> bytes = _line.receive();
  if (!bytes.has_value()) {
    _line.hangUp();
    endConnection();
    return;
  }
  _state->isBusy = true;
  // One by one, to see each token.
  for (size_t at = 0; at < bytes->size() && _isConnected; ++at) {
    const uint32_t before = _commands.next();
    const Damage damage = _commands.damage();
    _commands.feed(std::string_view(*bytes).substr(at, 1));
    if (_commands.damage() != damage) showEvidence();
    _state->lost += _commands.damage().lost - damage.lost;
    _state->doubled += _commands.damage().doubled - damage.doubled;
    _state->foreign += _commands.damage().foreign - damage.foreign;
    if (_commands.next() != before) obey(_commands.last());
  }
}

// Before the damage is counted.
void Device::showEvidence() {
  if (_state->evidence.front() != 0) return;
  const size_t most = _state->evidence.size() - 1;
  std::strncpy(_state->evidence.data(), _commands.evidence().c_str(), most);
}

void Device::obey(const Token& command) {
  ++_state->commands;
  if (_habits.echoes) add(milliseconds(0), textOf(command));
  if (command.mode == 'C' || command.mode == 'R' || command.mode == 'A') {
    addCut(command);
  } else if (command.mode != 'S') {
    addAnswer(command);
  }
  ++_state->commandsSeen;
}

void Device::addAnswer(const Token& command) {
  if (command.mode == 'L') return add(milliseconds(command.amount), answer(3));
  const std::string text = answer(command.amount);
  if (command.mode == 'T') return answerInPieces(text);
  if (command.mode == 'P') {
    addInTwo(text, text.size() - random(1, 3), milliseconds(random(5, 50)));
  } else if (command.mode == 'H') {
    addInTwo(text, text.size() / 2, milliseconds(random(50, 300)));
  } else {
    add(milliseconds(0), text);
  }
}

void Device::addInTwo(const std::string& text, size_t middle, milliseconds pause) {
  add(milliseconds(0), text.substr(0, middle));
  add(pause, text.substr(middle));
}

void Device::addCut(const Token& command) {
  if (command.mode == 'A') {
    _steps.push_back({milliseconds(0), Action::kGoAway, "", milliseconds(command.amount)});
    return;
  }
  add(milliseconds(0), lines(command.amount / 20 + 1).substr(0, command.amount));
  const Action action = command.mode == 'C' ? Action::kHangUp : Action::kReset;
  _steps.push_back({milliseconds(0), action, "", milliseconds(0)});
}

void Device::answerInPieces(const std::string& text) {
  for (size_t at = 0; at < text.size();) {
    const size_t length = random(1, 40);
    add(milliseconds(random(0, 8)), text.substr(at, length));
    at += length;
  }
}

void Device::talk() {
  const uint32_t choice = random(0, 999);
  if (choice == 0) {
    add(milliseconds(random(0, 100)), lines(4000));
  } else if (choice < 4) {
    add(milliseconds(0), lines(2).substr(0, 33));
    _steps.push_back({milliseconds(0), Action::kHangUp, "", milliseconds(random(0, 300))});
  } else {
    const std::string text = lines(random(1, 6));
    const size_t middle = random(0, static_cast<uint32_t>(text.size()));
    add(milliseconds(random(5, 100)), text.substr(0, middle));
    add(milliseconds(random(0, 20)), text.substr(middle));
  }
}

void Device::add(milliseconds pause, std::string bytes) {
  if (_steps.empty()) _stepBegan = Clock::now();
  _steps.push_back({pause, Action::kSend, std::move(bytes), milliseconds(0)});
}

void Device::perform(Clock::time_point now) {
  while (!_steps.empty() && now >= _stepBegan + _steps.front().pause) {
    const Step step = std::move(_steps.front());
    const bool isCut = step.action != Action::kSend;
    send();
    if (!_isConnected) return;
    if (isCut && !_out.empty() && now < _stepBegan + kPatience) {
      _steps.front() = step;
      return;
    }
    _steps.pop_front();
    _stepBegan = now;
    if (isCut) return cut(step, now);
    _out += step.bytes;
  }
}

void Device::cut(const Step& step, Clock::time_point now) {
  ++_state->cuts;
  if (step.action == Action::kGoAway || _line.place().kind == zephal::DeviceKind::kTerminal) {
    _line.disappear();
    _isAway = true;
    _isBackAt = now + step.away;
  } else if (step.action == Action::kReset) {
    _line.reset();
  } else {
    _line.hangUp();
  }
  endConnection();
}

void Device::send() {
  if (!_isConnected || _out.empty()) return;
  const std::optional<size_t> count = _line.send(_out);
  if (!count.has_value()) {
    _line.hangUp();
    return endConnection();
  }
  _state->bytesSent += *count;
  _out.erase(0, *count);
}

std::string Device::lines(uint32_t count) {
  std::string text;
  for (uint32_t line = 0; line < count; ++line) {
    if (_habits.isNoisy && random(0, 3) == 0) text += '~';
    text += textOf({Token::Kind::kLine, _number, _connection, _nextToken++, 'N', 0, 0});
  }
  return text;
}

std::string Device::answer(uint32_t count) {
  const std::string text = lines(count);
  return text + textOf({Token::Kind::kPrompt, _number, _connection, _nextToken++, 'N', 0, 0});
}

uint32_t Device::random(uint32_t from, uint32_t to) {
  return std::uniform_int_distribution<uint32_t>(from, to)(_random);
}

}  // namespace soak
