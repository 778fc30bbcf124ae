#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "ZephalConsole/Console.h"
#include "ZephalConsole/Internal/Matcher.h"
#include "ZephalConsole/Internal/Receiver.h"
#include "ZephalConsole/Internal/Stop.h"
#include "ZephalConsole/Internal/Wakeup.h"

namespace zephal {

/// What a console is made of: the turns of operations, and the operations.
class Console::Session {
 public:
  Session(std::string url, ConsoleOptions options);
  ~Session();

  /// A process that was forked has this object too, but none of its threads: there no operation
  /// works, and the object must be left as it is.
  bool isOfThisProcess() const;

  const std::string& url() const { return _url; }
  const ConsoleOptions& options() const { return _options; }

  Hit expect(const std::vector<Pattern>& patterns, std::optional<Seconds> timeout);
  std::string ask(std::string_view command, std::optional<Seconds> timeout);
  Hit ask(std::string_view command, const Pattern& pick, std::optional<Seconds> timeout);
  RunResult run(std::string_view command, std::optional<Seconds> timeout);
  void login(std::string_view user, std::string_view password, std::optional<Seconds> timeout,
             const LoginDialogue& dialogue);
  void write(std::string_view bytes, std::optional<Seconds> timeout);
  void sendSecret(std::string_view line, std::optional<Seconds> timeout);
  std::vector<TimedLine> record(Seconds duration);
  void discard();
  void reopen(std::optional<Seconds> timeout);
  std::string reboot(std::string_view command, std::optional<Seconds> timeout);
  void cancel() noexcept;
  void close();
  bool isOpen() const;
  uint64_t lost() const;

 private:
  using Lock = internal::Receiver::Lock;
  using Stop = internal::Stop;
  class Turn;

  Stop stopAfter(std::optional<Seconds> timeout) const;
  bool receive(Lock& lock, const Stop& stop, const internal::Deadline& until);
  void takeTurn(const Stop& stop);
  void leaveTurn();

  const Pattern& prompt() const;
  Hit find(Lock& lock, const std::vector<Pattern>& patterns, const Stop& stop);
  std::optional<internal::Matcher::Found> look(const internal::Inbox& inbox,
                                               internal::Matcher& matcher, bool isFinal) const;
  internal::Deadline nextLook(Lock& lock, const internal::Matcher& matcher, const Stop& stop,
                              bool wasFinal) const;
  internal::Deadline::Clock::duration quietTime() const;
  bool isQuiet(Lock& lock) const;
  static Hit take(internal::Inbox& inbox, const internal::Matcher::Found& found);

  std::string askLocked(Lock& lock, std::string_view command, const Stop& stop);
  void awaitOwedPrompts(Lock& lock, const Stop& stop);
  Hit findState(Lock& lock, const std::vector<Pattern>& states, const Stop& stop);
  void skipEcho(Lock& lock, std::string_view command, const Stop& stop);
  void discardUnread(Lock& lock);

  void sendLine(Lock& lock, std::string_view line, const Stop& stop);
  void sendSecretLine(Lock& lock, std::string_view secret, const Stop& stop);
  void transmit(Lock& lock, std::string_view bytes, const Stop& stop);
  size_t transmitSome(Lock& lock, std::string_view bytes);
  void waitToTransmit(Lock& lock, const Stop& stop);

  void openLine(Lock& lock, const Stop& stop);
  void openUntil(Lock& lock, const Stop& stop);
  std::string awaitReboot(Lock& lock, const Stop& stop);

  void checkDevice(Lock& lock) const;
  void checkCancelled(const Stop& stop) const;
  void checkClosed(Lock& lock, const Stop& stop);
  [[noreturn]] void throwCancelled() const;
  void checkInterrupted(Lock& lock);
  [[noreturn]] void throwTimeout(Lock& lock, const std::string& waitedFor);
  [[noreturn]] void throwDisconnected(Lock& lock, const std::string& waitedFor, int number);

  const std::string _url;
  const ConsoleOptions _options;
  const pid_t _process;
  internal::Interventions _interventions;
  const internal::Wakeup _wakeup;
  mutable internal::Receiver _receiver;

  std::mutex _turnMutex;
  std::condition_variable _turnChanged;
  bool _isTaken = false;

  // Of the operation that has its turn.
  size_t _owedPrompts = 0;
  internal::Deadline::Clock::time_point _lastAsked;  // when the caller's function was asked
};

}  // namespace zephal
