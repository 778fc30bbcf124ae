/// @file
/// Talking to a device's console: ask, expect, log in, run.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ZephalConsole/Errors.h"
#include "ZephalConsole/Export.h"
#include "ZephalConsole/Hit.h"
#include "ZephalConsole/Pattern.h"

namespace zephal {

/// A time limit or a length of time; any std::chrono duration converts to it.
using Seconds = std::chrono::duration<double>;

/// How a console behaves. Everything has a default, so name only what differs.
struct ConsoleOptions {
  /// What the device prints when it is ready for the next command. `ask`, `run`, `login` and
  /// `reboot` need it. It must not match an empty text (std::invalid_argument).
  std::optional<Pattern> prompt = std::nullopt;
  /// A file that gets every line that is read and written, with its time; empty for none. It is
  /// appended to.
  std::string log = {};
  /// A file that gets the bytes as they arrive and leave, with their time; empty for none.
  std::string rawLog = {};
  /// The time limit of every operation that is not given one.
  Seconds timeout = std::chrono::seconds(10);
  /// How long the device must be silent for a match at the end of what has arrived to count, if
  /// more bytes could still change it.
  Seconds quiet = std::chrono::milliseconds(50);
  /// What ends a line that is sent.
  std::string lineEnd = "\n";
  /// Leaves ANSI escape sequences in what is matched and returned. The logs always have them.
  bool keepEscapes = false;
  /// How many unread bytes are kept. If more arrive, the oldest are dropped.
  size_t limit = size_t{16} << 20;
  /// The chip identifier (ECID) of the one device that may answer; see
  /// ZPKECIDSwapDetectTransformer.
  std::optional<uint64_t> ecid = std::nullopt;
  /// Asked on the thread of an operation that waits, ten times a second and after a signal handler
  /// has run on that thread. True ends the operation with Cancelled. It must not use the console.
  std::function<bool()> isInterrupted = {};
};

/// The result of `run`.
struct RunResult {
  /// What the command printed, lines ending in \n.
  std::string output;
  /// Its exit status.
  int status = 0;
};

/// One line of a recording.
struct TimedLine {
  /// When its last byte was read.
  std::chrono::system_clock::time_point time;
  /// Without its line break.
  std::string text;
};

/// What a device prints and accepts while somebody logs in.
struct LoginDialogue {
  /// Asks for the user.
  Pattern user = regex("(?i)(?:login|username): ?$");
  /// Asks for the password.
  Pattern password = regex("(?i)password: ?$");
  /// Says that user or password are wrong.
  Pattern refused = regex("(?i)(?:login incorrect|access denied|authentication fail)");
};

/// A device's console, over a serial line, a TCP connection, telnet or a unix socket.
///
///     zephal::Console dut("uart:///dev/ttyUSB0?baud=921600", {.prompt = "=> ", .log = "dut.log"});
///     std::string version = dut.ask("version");
///     double volts = dut.ask("adc 3", zephal::regex(R"(([\d.]+) V)")).number(1);
///
/// The URL is that of ZPKCommStack::createStackWithURL, except that a host may also be an IPv6
/// address or a name with one, and that "telnet://host:port?baud=115200" is a telnet server, whose
/// serial port is set to the baud rate, if one is given, by RFC 2217.
///
/// Every operation has a time limit, the given one or that of the options, and throws Timeout after
/// it; Disconnected if the line ends; DeviceSwapped; Cancelled. What is thrown for other reasons is
/// named at each. Any thread may call any operation; they run one at a time, in no particular
/// order, and waiting for its turn counts towards an operation's limit.
///
/// What the device sends is read all the time, by the calling thread during an operation and by a
/// thread of the console otherwise, and kept up to the limit. A device that floods, or that does
/// not read, can delay an operation only until its time limit.
///
/// A process that is forked cannot use the console of its parent: there it is closed.
class ZEPHAL_CONSOLE_EXPORT Console {
 public:
  /// Opens the line, within the time limit of the options. Throws OpenError, also if a log cannot
  /// be opened, and Timeout.
  explicit Console(const std::string& url, ConsoleOptions options = {});
  /// The console that was moved from can only be assigned to or destroyed.
  Console(Console&&) noexcept;
  /// Closes, and takes over the other one.
  Console& operator=(Console&&) noexcept;
  /// Closes. No other thread may be in an operation. In a process that was forked it does nothing.
  ~Console();

  /// The URL, as it was given.
  const std::string& url() const;
  /// The options, as they were given.
  const ConsoleOptions& options() const;

  /// Waits for one of the patterns. The one whose match begins first is found, and of several that
  /// begin there the one listed first. Everything up to the end of the match is then read; what
  /// follows stays unread. How the bytes were cut on their way makes no difference: while more
  /// bytes could still make a match begin earlier or end later, the console waits for them, or for
  /// the device to be quiet. When the time limit passes, what is there decides.
  ///
  /// Throws Error with code kTooHard for an expression that takes PCRE2 too many steps.
  Hit expect(const std::vector<Pattern>& patterns, std::optional<Seconds> timeout = {});
  /// The same.
  Hit expect(std::initializer_list<Pattern> patterns, std::optional<Seconds> timeout = {});
  /// The same, for one pattern.
  Hit expect(const Pattern& pattern, std::optional<Seconds> timeout = {});

  /// Sends a command and returns the answer, without its echo and without the prompt. Lines end in
  /// \n. What was unread before is dropped. If an earlier command ran out of time, its prompt is
  /// waited for first, so that a late answer never passes for this one's. The same holds if it was
  /// cancelled, and for a login or a reboot.
  std::string ask(std::string_view command, std::optional<Seconds> timeout = {});
  /// Picks a part of the answer; Hit::before is what is in front of it. Throws NoMatch if the
  /// answer does not contain it.
  Hit ask(std::string_view command, const Pattern& pick, std::optional<Seconds> timeout = {});

  /// Runs a command in a POSIX shell and asks for its exit status.
  RunResult run(std::string_view command, std::optional<Seconds> timeout = {});

  /// Logs in, whatever the device is waiting for: nothing is sent if it shows the prompt, only the
  /// password if it asks for that. Throws LoginRefused.
  void login(std::string_view user, std::string_view password, std::optional<Seconds> timeout = {},
             const LoginDialogue& dialogue = {});

  /// Sends a line, ended with the line end of the options.
  void send(std::string_view line, std::optional<Seconds> timeout = {});
  /// Sends a line that appears in no log and no exception. If the device echoes it in the line that
  /// it sends next, the echo shows as "***" everywhere.
  void sendSecret(std::string_view line, std::optional<Seconds> timeout = {});
  /// Sends bytes as they are.
  void write(std::string_view bytes, std::optional<Seconds> timeout = {});
  /// Sends a control character: "interrupt" (Ctrl-C), "eof" (Ctrl-D), "suspend" (Ctrl-Z), "quit"
  /// (Ctrl-\), "escape", "tab", "backspace", "delete", "enter", "xon", "xoff", or a letter for that
  /// letter's ("c"). Throws std::invalid_argument for another name.
  void sendControl(std::string_view name, std::optional<Seconds> timeout = {});
  /// Ctrl-C.
  void interrupt(std::optional<Seconds> timeout = {}) { sendControl("interrupt", timeout); }

  /// Everything that arrives within `duration`, by lines. Never throws Timeout.
  std::vector<TimedLine> record(Seconds duration);
  /// Drops everything that is unread, and no longer waits for the prompts of earlier commands.
  void discard();

  /// Closes, if it is open, and opens again, trying until the time limit. What was unread is
  /// dropped. The logs go on in the same files. Throws the last OpenError, if it never succeeded.
  void reopen(std::optional<Seconds> timeout = {});
  /// Sends a command that restarts the device, waits for the prompt, and returns what the device
  /// printed until then. If the line goes away meanwhile, opens it again.
  std::string reboot(std::string_view command, std::optional<Seconds> timeout = {});

  /// Ends, on any thread, all operations that are running or waiting for their turn, with
  /// Cancelled. Does nothing to later ones.
  void cancel() noexcept;
  /// Closes the line and the logs; operations that are running or waiting for their turn throw
  /// Disconnected. Does nothing if it is closed. `reopen` opens it again.
  void close();
  /// Whether there is a line that, as far as is known, has not ended.
  bool isOpen() const;
  /// How many bytes were dropped so far because nobody read them.
  uint64_t lost() const;

 private:
  class ZEPHAL_CONSOLE_HIDDEN Session;
  std::unique_ptr<Session> _session;
};

}  // namespace zephal
