#include "ZephalConsole/Console.h"

#include <system_error>
#include <utility>

#include "ZephalConsole/Internal/ControlCharacter.h"
#include "ZephalConsole/Internal/Expression.h"
#include "ZephalConsole/Internal/Session.h"

namespace zephal {

// What a console needs besides its line can be refused too: a thread, and descriptors.
Console::Console(const std::string& url, ConsoleOptions options) try
    : _session(std::make_unique<Session>(url, std::move(options))) {
} catch (const std::system_error& error) {
  throw OpenError(std::string("cannot make a console: ") + error.what(), "POSIX",
                  error.code().value(), url);
}

Console::Console(Console&&) noexcept = default;

Console& Console::operator=(Console&& other) noexcept {
  if (this == &other) return *this;
  const Console closed(std::move(*this));
  _session = std::move(other._session);
  return *this;
}

// A console that a forked process has copied is left as it is: its thread is not there to be
// joined, and to close a serial port would reset it for the process that uses it.
Console::~Console() {
  if (_session != nullptr && !_session->isOfThisProcess()) {
    static_cast<void>(_session.release());
  }
}

const std::string& Console::url() const { return _session->url(); }

const ConsoleOptions& Console::options() const { return _session->options(); }

Hit Console::expect(const std::vector<Pattern>& patterns, std::optional<Seconds> timeout) {
  return _session->expect(patterns, timeout);
}

Hit Console::expect(std::initializer_list<Pattern> patterns, std::optional<Seconds> timeout) {
  return _session->expect(std::vector<Pattern>(patterns), timeout);
}

Hit Console::expect(const Pattern& pattern, std::optional<Seconds> timeout) {
  return _session->expect({pattern}, timeout);
}

std::string Console::ask(std::string_view command, std::optional<Seconds> timeout) {
  return _session->ask(command, timeout);
}

Hit Console::ask(std::string_view command, const Pattern& pick, std::optional<Seconds> timeout) {
  return _session->ask(command, pick, timeout);
}

RunResult Console::run(std::string_view command, std::optional<Seconds> timeout) {
  return _session->run(command, timeout);
}

void Console::login(std::string_view user, std::string_view password,
                    std::optional<Seconds> timeout, const LoginDialogue& dialogue) {
  _session->login(user, password, timeout, dialogue);
}

void Console::send(std::string_view line, std::optional<Seconds> timeout) {
  _session->write(std::string(line) + options().lineEnd, timeout);
}

void Console::sendSecret(std::string_view line, std::optional<Seconds> timeout) {
  _session->sendSecret(line, timeout);
}

void Console::write(std::string_view bytes, std::optional<Seconds> timeout) {
  _session->write(bytes, timeout);
}

void Console::sendControl(std::string_view name, std::optional<Seconds> timeout) {
  const char character = internal::controlCharacter(name);
  _session->write({&character, 1}, timeout);
}

std::vector<TimedLine> Console::record(Seconds duration) { return _session->record(duration); }

void Console::discard() { _session->discard(); }

void Console::reopen(std::optional<Seconds> timeout) { _session->reopen(timeout); }

std::string Console::reboot(std::string_view command, std::optional<Seconds> timeout) {
  return _session->reboot(command, timeout);
}

void Console::cancel() noexcept { _session->cancel(); }

void Console::close() { _session->close(); }

bool Console::isOpen() const { return _session->isOpen(); }

uint64_t Console::lost() const { return _session->lost(); }

}  // namespace zephal
