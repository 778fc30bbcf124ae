#include "ZephalConsole/Internal/Session.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "ZephalConsole/Internal/AnswerText.h"
#include "ZephalConsole/Internal/EchoSearch.h"
#include "ZephalConsole/Internal/Expression.h"
#include "ZephalConsole/Internal/OpenLine.h"

namespace zephal {
namespace {

using internal::Deadline;
using internal::Matcher;
using internal::PatternSearch;

// How long a device must be silent after the prompt to be taken for restarted: a shell shows one
// more prompt between accepting the command and obeying it.
constexpr std::chrono::seconds kSettled(1);

// How long login waits for the device to say something before it sends a line end.
constexpr std::chrono::milliseconds kPatience(500);

// How long to wait before the next try to open a line.
constexpr std::chrono::milliseconds kRetryPause(50);

std::string describe(const std::vector<Pattern>& patterns) {
  std::string text;
  for (const Pattern& pattern : patterns) {
    if (!text.empty()) text += " or ";
    text += pattern.description();
  }
  return text;
}

void keepLast(size_t count, std::string* text) {
  if (text->size() > count) text->erase(0, text->size() - count);
}

}  // namespace

// An operation's turn, and the time for which the receiver leaves reading to it.
class Console::Session::Turn {
 public:
  Turn(Session& session, const Stop& stop) : _session(session) {
    session.takeTurn(stop);
    lock = session._receiver.lock();
    session._receiver.beginOperation(lock);
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn() {
    if (!lock.owns_lock()) lock.lock();
    _session._receiver.endOperation(lock);
    lock.unlock();
    _session.leaveTurn();
  }

  Lock lock;

 private:
  Session& _session;
};

Console::Session::Session(std::string url, ConsoleOptions options)
    : _url(std::move(url)),
      _options(std::move(options)),
      _process(::getpid()),
      _receiver(_url, _options, _wakeup) {
  _interventions.isInterrupted = _options.isInterrupted;
  if (_options.prompt.has_value() && _options.prompt->isExpression() &&
      _options.prompt->expression()->matchesNothing()) {
    throw std::invalid_argument("a prompt that matches an empty text is always there: " +
                                _options.prompt->description());
  }
  Lock lock = _receiver.lock();
  openLine(lock, stopAfter(std::nullopt));
}

Console::Session::~Session() = default;

bool Console::Session::isOfThisProcess() const { return ::getpid() == _process; }

Hit Console::Session::expect(const std::vector<Pattern>& patterns, std::optional<Seconds> timeout) {
  if (patterns.empty()) throw std::invalid_argument("expect needs a pattern");
  const Stop stop = stopAfter(timeout);
  Turn turn(*this, stop);
  return find(turn.lock, patterns, stop);
}

std::string Console::Session::ask(std::string_view command, std::optional<Seconds> timeout) {
  const Stop stop = stopAfter(timeout);
  Turn turn(*this, stop);
  return askLocked(turn.lock, command, stop);
}

// The answer is whole, so a single look at it decides.
Hit Console::Session::ask(std::string_view command, const Pattern& pick,
                          std::optional<Seconds> timeout) {
  const std::string answer = ask(command, timeout);
  internal::Inbox inbox(answer.size());
  inbox.room(answer.size()) = answer;
  inbox.appended(std::chrono::system_clock::now());
  Matcher matcher({pick});
  const auto found = look(inbox, matcher, true);
  if (!found.has_value()) throw NoMatch("no " + pick.description(), _url, answer);
  return take(inbox, *found);
}

RunResult Console::Session::run(std::string_view command, std::optional<Seconds> timeout) {
  const Stop stop = stopAfter(timeout);
  Turn turn(*this, stop);
  RunResult result;
  result.output = askLocked(turn.lock, command, stop);
  const std::string status = askLocked(turn.lock, "echo $?", stop);
  try {
    result.status = std::stoi(status);
  } catch (const std::logic_error&) {
    throw NoMatch("the shell did not print an exit status", _url, status);
  }
  return result;
}

void Console::Session::write(std::string_view bytes, std::optional<Seconds> timeout) {
  const Stop stop = stopAfter(timeout);
  Turn turn(*this, stop);
  checkDevice(turn.lock);
  _receiver.logWritten(turn.lock, bytes);
  transmit(turn.lock, bytes, stop);
}

void Console::Session::sendSecret(std::string_view line, std::optional<Seconds> timeout) {
  const Stop stop = stopAfter(timeout);
  Turn turn(*this, stop);
  checkDevice(turn.lock);
  sendSecretLine(turn.lock, line, stop);
}

std::vector<TimedLine> Console::Session::record(Seconds duration) {
  const Stop stop = stopAfter(duration);
  Turn turn(*this, stop);
  while (!stop.deadline().hasPassed()) {
    checkDevice(turn.lock);
    checkCancelled(stop);
    if (_receiver.hasEnded(turn.lock)) {
      throwDisconnected(turn.lock, "the end of a recording", _receiver.endError(turn.lock));
    }
    receive(turn.lock, stop, stop.deadline());
  }
  internal::Inbox& inbox = _receiver.inbox(turn.lock);
  std::vector<TimedLine> lines;
  // A line that is empty takes forty times its line feed, and twice as much while a vector grows.
  lines.reserve(1 +
                static_cast<size_t>(std::count(inbox.text().begin(), inbox.text().end(), '\n')));
  while (!inbox.text().empty()) {
    const std::string_view text = inbox.text();
    const size_t length = std::min(text.find('\n'), text.size() - 1) + 1;
    std::string line = internal::answerText(text.substr(0, length));
    if (line.ends_with('\n')) line.pop_back();
    lines.push_back({inbox.timeOf(inbox.begin() + length), std::move(line)});
    inbox.readUpTo(inbox.begin() + length);
  }
  inbox.takeLoss();
  return lines;
}

void Console::Session::discard() {
  const Stop stop = stopAfter(std::nullopt);
  Turn turn(*this, stop);
  discardUnread(turn.lock);
  _owedPrompts = 0;
}

// ---- turns ----

Console::Session::Stop Console::Session::stopAfter(std::optional<Seconds> timeout) const {
  return Stop(Deadline::after(timeout.value_or(_options.timeout)), _interventions);
}

// A device that sends all the time does not keep the caller's function from being asked.
bool Console::Session::receive(Lock& lock, const Stop& stop, const Deadline& until) {
  constexpr std::chrono::milliseconds kAskedAtLeast(100);
  const bool hasArrived = _receiver.receive(lock, stop.slice(until));
  if (!_options.isInterrupted) return hasArrived;
  if (!hasArrived || Deadline::Clock::now() - _lastAsked >= kAskedAtLeast) checkInterrupted(lock);
  return hasArrived;
}

void Console::Session::takeTurn(const Stop& stop) {
  if (!isOfThisProcess()) {
    throw Disconnected("the console belongs to the process that opened it",
                       ErrorCode::kDisconnected, _url, "its turn", "");
  }
  std::unique_lock lock(_turnMutex);
  while (_isTaken) {
    checkCancelled(stop);
    if (stop.deadline().hasPassed()) {
      throw Timeout("timed out", ErrorCode::kTimeout, _url, "another operation to end", "");
    }
    _turnChanged.wait_until(lock, stop.slice().time());
    if (!_options.isInterrupted) continue;
    lock.unlock();  // see checkInterrupted
    if (_options.isInterrupted()) throwCancelled();
    lock.lock();
  }
  checkCancelled(stop);
  _isTaken = true;
}

void Console::Session::leaveTurn() {
  {
    const std::lock_guard lock(_turnMutex);
    _isTaken = false;
  }
  // All of them, because the one that is woken may have been cancelled.
  _turnChanged.notify_all();
}

void Console::Session::cancel() noexcept {
  if (!isOfThisProcess()) return;
  ++_interventions.cancels;
  { const std::lock_guard lock(_turnMutex); }
  _turnChanged.notify_all();
  _receiver.wakeAll();
}

// ---- finding ----

const Pattern& Console::Session::prompt() const {
  if (_options.prompt.has_value()) return *_options.prompt;
  throw std::logic_error("this operation needs a console with the option prompt");
}

Hit Console::Session::find(Lock& lock, const std::vector<Pattern>& patterns, const Stop& stop) {
  Matcher matcher(patterns);
  bool isFinal = false;
  bool isLookedAt = false;  // and nothing has arrived since that final look
  for (bool isLast = false;;) {
    checkDevice(lock);
    const bool hasEnded = _receiver.hasEnded(lock);
    if (!isLookedAt) {
      const auto found = look(_receiver.inbox(lock), matcher, isFinal || hasEnded);
      if (found.has_value()) return take(_receiver.inbox(lock), *found);
    }
    if (hasEnded) throwDisconnected(lock, describe(patterns), _receiver.endError(lock));
    checkCancelled(stop);
    if (isLast) throwTimeout(lock, describe(patterns));
    const bool wasFinal = isFinal;
    const bool hasArrived = receive(lock, stop, nextLook(lock, matcher, stop, wasFinal));
    isLast = stop.deadline().hasPassed();
    isLookedAt = wasFinal && !hasArrived;
    isFinal = isLast || (!hasArrived && isQuiet(lock));
  }
}

bool Console::Session::isQuiet(Lock& lock) const {
  return Deadline::Clock::now() >= _receiver.lastByte(lock) + quietTime();
}

Deadline::Clock::duration Console::Session::quietTime() const {
  return std::chrono::duration_cast<Deadline::Clock::duration>(_options.quiet);
}

std::optional<Matcher::Found> Console::Session::look(const internal::Inbox& inbox, Matcher& matcher,
                                                     bool isFinal) const {
  try {
    return matcher.look(inbox.text(), inbox.begin(), isFinal);
  } catch (const PatternSearch::TooHard& hard) {
    throw Error(std::string("too many steps to match ") + hard.what(), std::string(kConsoleDomain),
                static_cast<int>(ErrorCode::kTooHard), _url);
  }
}

// Until when there is nothing to decide unless bytes arrive.
Deadline Console::Session::nextLook(Lock& lock, const Matcher& matcher, const Stop& stop,
                                    bool wasFinal) const {
  Deadline::Clock::time_point time = stop.deadline().time();
  if (matcher.isUndecided() && !wasFinal)
    time = std::min(time, _receiver.lastByte(lock) + quietTime());
  if (matcher.nextLook().has_value()) time = std::min(time, *matcher.nextLook());
  return Deadline(time);
}

Hit Console::Session::take(internal::Inbox& inbox, const Matcher::Found& found) {
  const auto textBetween = [&inbox](uint64_t begin, uint64_t end) {
    return std::string(inbox.text().substr(static_cast<size_t>(begin - inbox.begin()),
                                           static_cast<size_t>(end - begin)));
  };
  const auto [begin, end] = found.groups.front();
  Hit hit;
  hit.index = found.index;
  for (const auto& [groupBegin, groupEnd] : found.groups) {
    const bool tookPart = groupBegin != PatternSearch::kNone;
    hit.groups.push_back(tookPart ? std::optional(textBetween(groupBegin, groupEnd))
                                  : std::nullopt);
  }
  hit.time = inbox.timeOf(end);
  hit.lost = inbox.takeLoss();
  hit.before = inbox.take(begin);
  inbox.readUpTo(end);
  return hit;
}

// ---- asking ----

std::string Console::Session::askLocked(Lock& lock, std::string_view command, const Stop& stop) {
  const std::vector<Pattern> prompts{prompt()};
  awaitOwedPrompts(lock, stop);
  discardUnread(lock);
  sendLine(lock, command, stop);
  ++_owedPrompts;
  skipEcho(lock, command, stop);
  const Hit hit = find(lock, prompts, stop);
  --_owedPrompts;
  return internal::answerText(hit.before);
}

void Console::Session::awaitOwedPrompts(Lock& lock, const Stop& stop) {
  for (; _owedPrompts > 0; --_owedPrompts) find(lock, {prompt()}, stop);
}

// Drops the echo of a command that was just sent, once it is whole. The prompt is not looked for
// until then, because the command may contain it.
void Console::Session::skipEcho(Lock& lock, std::string_view command, const Stop& stop) {
  internal::Inbox& inbox = _receiver.inbox(lock);
  std::optional<internal::EchoSearch> search(command);
  uint64_t begin = inbox.begin();
  for (bool isQuiet = false;;) {
    if (std::exchange(begin, inbox.begin()) != inbox.begin()) search.emplace(command);  // some lost
    const internal::Echo echo = search->look(inbox.text());
    if (echo.state == internal::Echo::State::kFound) inbox.readUpTo(inbox.begin() + echo.length);
    if (echo.state != internal::Echo::State::kUndecided) return;
    checkDevice(lock);
    if (_receiver.hasEnded(lock)) return;
    // A device that does not echo may answer with the first characters of the command.
    Matcher matcher({prompt()});
    if (isQuiet && look(inbox, matcher, true).has_value()) return;
    checkCancelled(stop);
    if (stop.deadline().hasPassed()) return;
    const auto quietAt = _receiver.lastByte(lock) + quietTime();
    const bool mayBecomeQuiet = !isQuiet && !inbox.text().empty();
    const auto until =
        mayBecomeQuiet ? std::min(quietAt, stop.deadline().time()) : stop.deadline().time();
    const bool hasArrived = receive(lock, stop, Deadline(until));
    isQuiet = !hasArrived && Deadline::Clock::now() >= quietAt;
  }
}

// Also what the system has, but not for as long as a device floods.
void Console::Session::discardUnread(Lock& lock) {
  constexpr int kMostReads = 16;
  for (int i = 0; i < kMostReads && _receiver.receive(lock, Deadline(Deadline::Clock::now()));
       ++i) {
  }
  internal::Inbox& inbox = _receiver.inbox(lock);
  inbox.readUpTo(inbox.end());
  inbox.takeLoss();
}

// ---- logging in ----

void Console::Session::login(std::string_view user, std::string_view password,
                             std::optional<Seconds> timeout, const LoginDialogue& dialogue) {
  enum { kPrompt, kUser, kPassword, kRefused };
  const std::vector<Pattern> states{prompt(), dialogue.user, dialogue.password, dialogue.refused};
  const Stop stop = stopAfter(timeout);
  Turn turn(*this, stop);
  bool hasSentUser = false;
  bool hasSentPassword = false;
  for (Hit hit = findState(turn.lock, states, stop); hit.index != kPrompt;
       hit = find(turn.lock, states, stop)) {
    if (stop.deadline().hasPassed()) throwTimeout(turn.lock, describe(states));
    const bool isRefused = hit.index == kRefused || (hit.index == kUser && hasSentPassword);
    if (isRefused && hasSentUser) {
      _owedPrompts = 0;
      throw LoginRefused("the device refuses to log in " + std::string(user),
                         std::string(kConsoleDomain), static_cast<int>(ErrorCode::kLoginRefused),
                         _url);
    }
    if (hit.index == kUser) {
      sendLine(turn.lock, user, stop);
      hasSentUser = true;
    }
    if (hit.index == kPassword) {
      sendSecretLine(turn.lock, password, stop);
      hasSentPassword = true;
      _owedPrompts = 1;
    }
  }
  _owedPrompts = 0;
}

// What the device is waiting for. If it says nothing, a line end makes it say so again.
Hit Console::Session::findState(Lock& lock, const std::vector<Pattern>& states, const Stop& stop) {
  const Deadline patience(std::min(Deadline::after(kPatience).time(), stop.deadline().time()));
  try {
    return find(lock, states, stop.until(patience));
  } catch (const Timeout&) {
    if (stop.deadline().hasPassed()) throw;
  }
  sendLine(lock, "", stop);
  return find(lock, states, stop);
}

// ---- sending ----

void Console::Session::sendLine(Lock& lock, std::string_view line, const Stop& stop) {
  checkDevice(lock);
  const std::string bytes = std::string(line) + _options.lineEnd;
  _receiver.logWritten(lock, bytes);
  transmit(lock, bytes, stop);
}

void Console::Session::sendSecretLine(Lock& lock, std::string_view secret, const Stop& stop) {
  _receiver.expectSecret(lock, secret);
  transmit(lock, std::string(secret) + _options.lineEnd, stop);
}

void Console::Session::transmit(Lock& lock, std::string_view bytes, const Stop& stop) {
  while (!bytes.empty()) {
    const size_t count = transmitSome(lock, bytes);
    bytes.remove_prefix(count);
    if (count == 0) waitToTransmit(lock, stop);
  }
}

size_t Console::Session::transmitSome(Lock& lock, std::string_view bytes) {
  const std::shared_ptr<internal::Line> line = _receiver.line(lock);
  if (_receiver.hasEnded(lock)) {
    throwDisconnected(lock, "the device to accept bytes", _receiver.endError(lock));
  }
  const ssize_t count = line->writeSome(bytes);
  if (count < 0) throwDisconnected(lock, "the device to accept bytes", errno);
  return static_cast<size_t>(count);
}

// Reads meanwhile: a device that waits for us to read would otherwise never read itself.
void Console::Session::waitToTransmit(Lock& lock, const Stop& stop) {
  checkCancelled(stop);
  if (stop.deadline().hasPassed()) throwTimeout(lock, "the device to accept bytes");
  _receiver.waitToWrite(lock, stop.slice());
  checkInterrupted(lock);
}

// ---- opening and closing ----

void Console::Session::openLine(Lock& lock, const Stop& stop) {
  lock.unlock();
  std::shared_ptr<internal::Line> line;
  try {
    line = internal::openLine(_url, stop, _wakeup);
  } catch (const OpenError& error) {
    lock.lock();
    checkCancelled(stop);
    checkClosed(lock, stop);
    if (error.code() == ECANCELED) throwCancelled();
    throw;
  } catch (...) {
    lock.lock();
    throw;
  }
  lock.lock();
  checkClosed(lock, stop);
  _receiver.attach(lock, std::move(line));
}

void Console::Session::reopen(std::optional<Seconds> timeout) {
  const Stop stop = stopAfter(timeout);
  Turn turn(*this, stop);
  _receiver.detach(turn.lock);
  openUntil(turn.lock, stop);
}

// The reason of the first failure is kept if the last try only ran out of time.
void Console::Session::openUntil(Lock& lock, const Stop& stop) {
  _owedPrompts = 0;
  std::optional<OpenError> reason;
  for (;;) {
    try {
      openLine(lock, stop);
      return;
    } catch (const OpenError& error) {
      if (error.code() != ETIMEDOUT || !reason.has_value()) reason.emplace(error);
    }
    if (stop.deadline().hasPassed()) throw OpenError(*reason);
    const Deadline next(std::min(Deadline::after(kRetryPause).time(), stop.deadline().time()));
    _receiver.pause(lock, next);
    checkInterrupted(lock);
    checkCancelled(stop);
    checkClosed(lock, stop);
  }
}

std::string Console::Session::reboot(std::string_view command, std::optional<Seconds> timeout) {
  prompt();
  const Stop stop = stopAfter(timeout);
  Turn turn(*this, stop);
  discardUnread(turn.lock);
  sendLine(turn.lock, command, stop);
  _owedPrompts = 1;
  skipEcho(turn.lock, command, stop);
  for (;;) {
    try {
      std::string text = awaitReboot(turn.lock, stop);
      _owedPrompts = 0;
      return text;
    } catch (const Disconnected&) {
      if (stop.isClosed()) throw;
      _receiver.detach(turn.lock);
      openUntil(turn.lock, stop);
      _owedPrompts = 1;
    }
  }
}

// What the device prints up to a prompt that silence follows.
std::string Console::Session::awaitReboot(Lock& lock, const Stop& stop) {
  std::string text;
  for (;;) {
    Hit hit = find(lock, {prompt()}, stop);
    text += hit.before;
    const Deadline settled(std::min(Deadline::after(kSettled).time(), stop.deadline().time()));
    while (!settled.hasPassed() && !_receiver.hasEnded(lock)) {
      checkCancelled(stop);
      if (receive(lock, stop, settled)) break;
    }
    if (_receiver.hasEnded(lock)) continue;  // find throws
    if (_receiver.inbox(lock).text().empty()) {
      keepLast(_options.limit, &text);
      return internal::answerText(text);
    }
    if (stop.deadline().hasPassed()) throwTimeout(lock, prompt().description());
    text += hit.text();
    // A device that shows prompts without end must not cost a move of all the text for each.
    if (text.size() / 2 > _options.limit) keepLast(_options.limit, &text);
  }
}

void Console::Session::close() {
  if (!isOfThisProcess()) return;
  ++_interventions.closes;
  _receiver.wakeAll();
  Lock lock = _receiver.lock();
  _receiver.detach(lock);
  _receiver.closeLogs(lock);
}

bool Console::Session::isOpen() const {
  if (!isOfThisProcess()) return false;
  Lock lock = _receiver.lock();
  return !_receiver.hasEnded(lock);
}

uint64_t Console::Session::lost() const {
  if (!isOfThisProcess()) return 0;
  Lock lock = _receiver.lock();
  return _receiver.inbox(lock).lost();
}

// ---- failures ----

void Console::Session::checkDevice(Lock& lock) const {
  const std::optional<std::string>& swap = _receiver.swap(lock);
  if (!swap.has_value()) return;
  throw DeviceSwapped(*swap, std::string(kConsoleDomain),
                      static_cast<int>(ErrorCode::kDeviceSwapped), _url);
}

void Console::Session::checkCancelled(const Stop& stop) const {
  if (stop.isCancelled()) throwCancelled();
}

// Without the lock: the caller's function may wait for a thread that is in a call of this console.
void Console::Session::checkInterrupted(Lock& lock) {
  if (!_options.isInterrupted) return;
  _lastAsked = Deadline::Clock::now();
  lock.unlock();
  const bool isInterrupted = _options.isInterrupted();
  lock.lock();
  if (isInterrupted) throwCancelled();
}

void Console::Session::checkClosed(Lock& lock, const Stop& stop) {
  if (stop.isClosed()) throwDisconnected(lock, "the line to open", 0);
}

void Console::Session::throwCancelled() const {
  throw Cancelled("cancelled", std::string(kConsoleDomain), static_cast<int>(ErrorCode::kCancelled),
                  _url);
}

void Console::Session::throwTimeout(Lock& lock, const std::string& waitedFor) {
  throw Timeout("timed out", ErrorCode::kTimeout, _url, waitedFor,
                std::string(_receiver.inbox(lock).text()));
}

void Console::Session::throwDisconnected(Lock& lock, const std::string& waitedFor, int number) {
  std::string reason =
      _receiver.line(lock) == nullptr ? "the console is closed" : "the connection has ended";
  if (number != 0) reason += " (" + std::generic_category().message(number) + ")";
  throw Disconnected(reason, ErrorCode::kDisconnected, _url, waitedFor,
                     std::string(_receiver.inbox(lock).text()));
}

}  // namespace zephal
