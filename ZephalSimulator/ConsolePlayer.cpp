#include "ConsolePlayer.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace zephal {

namespace {

std::string withLineFeeds(std::string_view bytes) {
  std::string text(bytes);
  std::replace(text.begin(), text.end(), '\r', '\n');
  return text;
}

std::string withCRLF(std::string_view text) {
  std::string bytes;
  for (const char byte : text) {
    if (byte == '\n') bytes += '\r';
    bytes += byte;
  }
  return bytes;
}

std::string asSent(std::string_view text, const DeviceBehaviour& behaviour) {
  return behaviour.translatesLineEnds ? withCRLF(text) : std::string(text);
}

DeviceEnding endingOf(DeviceAnswer::Then then) {
  if (then == DeviceAnswer::Then::kHangUp) return DeviceEnding::kHangUp;
  if (then == DeviceAnswer::Then::kReboot) return DeviceEnding::kPowerOff;
  return DeviceEnding::kNone;
}

std::vector<size_t> everyCutOf(const std::string& text) {
  std::vector<size_t> cuts;
  for (size_t cut = 1; cut < text.size(); ++cut) cuts.push_back(cut);
  return cuts;
}

// Adds a step for each part of the text, which begin where the cuts are. An empty part stays: its
// pause is part of the behaviour.
void addParts(const std::string& text, const std::vector<size_t>& cuts,
              std::chrono::milliseconds delay, const DeviceBehaviour& behaviour,
              DeviceReaction* reaction) {
  size_t start = 0;
  std::chrono::milliseconds pause = delay;
  const auto addPart = [&](size_t cut) {
    const size_t end = std::clamp(cut, start, text.size());
    reaction->steps.push_back({.bytes = text.substr(start, end - start), .pause = pause});
    start = end;
    pause = behaviour.pause;
  };
  for (const size_t cut : behaviour.trickles ? everyCutOf(text) : cuts) addPart(cut);
  addPart(text.size());
}

// The cuts of an answer whose prompt begins at `promptStart`.
std::vector<size_t> cutsOf(size_t promptStart, const DeviceBehaviour& behaviour) {
  std::vector<size_t> cuts = behaviour.splitsAfter;
  if (behaviour.splitsPromptAfter.has_value()) {
    cuts.push_back(promptStart + *behaviour.splitsPromptAfter);
    std::sort(cuts.begin(), cuts.end());
  }
  return cuts;
}

// An answer as it is sent: `echo`, then its text, then a prompt.
void addAnswer(const std::string& echo, const DeviceAnswer& answer,
               const DeviceBehaviour& behaviour, DeviceReaction* reaction) {
  if (answer.isSilent) return;
  std::string text = asSent(echo + answer.text, behaviour);
  const std::vector<size_t> cuts = cutsOf(text.size(), behaviour);
  if (answer.then == DeviceAnswer::Then::kPrompt) {
    text += asSent(answer.prompt.value_or(behaviour.prompt), behaviour);
  }
  DeviceEnding ending = endingOf(answer.then);
  if (behaviour.hangsUpAfter.has_value()) {
    text.resize(std::min(text.size(), *behaviour.hangsUpAfter));
    ending = DeviceEnding::kHangUp;
  }
  addParts(text, cuts, answer.delay.value_or(behaviour.delay), behaviour, reaction);
  if (ending == DeviceEnding::kNone) return;
  reaction->steps.push_back({.ending = ending, .away = answer.away});
}

}  // namespace

DeviceReaction ConsolePlayer::start(const DeviceBehaviour& behaviour) {
  const bool asksForLogin = behaviour.login.has_value();
  _pending.clear();
  _stage = asksForLogin ? Stage::kUser : Stage::kConsole;
  DeviceReaction reaction;
  if (behaviour.bootText.empty() && !asksForLogin) return reaction;
  const std::string& end = asksForLogin ? behaviour.login->userPrompt : behaviour.prompt;
  addParts(asSent(behaviour.bootText + end, behaviour), {}, std::chrono::milliseconds(0), behaviour,
           &reaction);
  return reaction;
}

DeviceReaction ConsolePlayer::take(std::string_view bytes, const DeviceBehaviour& behaviour) {
  const std::string& terminator = behaviour.terminator;
  // Bytes that were searched before are not searched again, except the beginning of a terminator.
  size_t from = _pending.size() - std::min(_pending.size(), terminator.size() - 1);
  _pending += behaviour.translatesLineEnds ? withLineFeeds(bytes) : bytes;
  DeviceReaction reaction;
  size_t start = 0;
  for (size_t end = _pending.find(terminator, from); end != std::string::npos;
       end = _pending.find(terminator, from)) {
    takeCommand(_pending.substr(start, end - start), behaviour, &reaction);
    start = from = end + terminator.size();
  }
  _pending.erase(0, start);
  return reaction;
}

void ConsolePlayer::endConnection() { _pending.clear(); }

void ConsolePlayer::takeCommand(const std::string& command, const DeviceBehaviour& behaviour,
                                DeviceReaction* reaction) {
  reaction->commands.push_back(command);
  if (behaviour.isSilent) return;
  const bool isPassword = behaviour.login.has_value() && _stage == Stage::kPassword;
  const std::string echo = (isPassword ? "" : command) + behaviour.terminator;
  addAnswer(behaviour.echoes ? echo : "", answerTo(command, behaviour, reaction), behaviour,
            reaction);
}

DeviceAnswer ConsolePlayer::answerTo(const std::string& command, const DeviceBehaviour& behaviour,
                                     DeviceReaction* reaction) {
  if (behaviour.login.has_value()) {
    const DeviceLogin& login = *behaviour.login;
    if (_stage == Stage::kUser) return answerToUser(command, login);
    if (_stage == Stage::kPassword) return answerToPassword(command, login);
    if (command == login.logout) return askAgain(login, "");
  }
  const auto known = behaviour.responses.find(command);
  if (known != behaviour.responses.end()) return known->second;
  if (behaviour.respond) return behaviour.respond(command);
  if (!command.empty()) reaction->unknownCommands.push_back(command);
  return {};
}

DeviceAnswer ConsolePlayer::answerToUser(const std::string& user, const DeviceLogin& login) {
  if (user.empty()) return askAgain(login, "");
  if (login.password.empty()) {
    return user == login.user ? letIn(login) : askAgain(login, login.refusal);
  }
  _user = user;
  _stage = Stage::kPassword;
  return DeviceAnswer::withoutPrompt(login.passwordPrompt);
}

DeviceAnswer ConsolePlayer::answerToPassword(const std::string& password,
                                             const DeviceLogin& login) {
  const bool isRight = _user == login.user && password == login.password;
  return isRight ? letIn(login) : askAgain(login, login.refusal);
}

DeviceAnswer ConsolePlayer::letIn(const DeviceLogin& login) {
  _stage = Stage::kConsole;
  return login.welcome;
}

DeviceAnswer ConsolePlayer::askAgain(const DeviceLogin& login, const std::string& text) {
  _stage = Stage::kUser;
  return DeviceAnswer::withoutPrompt(text + login.userPrompt);
}

}  // namespace zephal
