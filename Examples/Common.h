// What the examples share: the command line, reasons for failures, and a listener that only this
// machine can reach.
#pragma once

#include <ZephalIO/ZephalIO.h>
#include <getopt.h>

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The exit status of every example: all done; the device or the library said no; wrong usage.
enum ExitStatus { kDone = 0, kRefused = 1, kBadUsage = 2 };

/// The words after a program's name. Options are parsed with getopt_long(3), so "--width 4" and
/// "--width=4" are the same, and "--" ends them. A wrong word ends the program, as do --help and
/// --version, which every program has.
class CommandLine {
 public:
  /// `help` begins with "usage: NAME" on a line of its own.
  CommandLine(int count, char** words, const char* help, std::vector<option> options);

  /// The `val` of the next option; 0 if the next word is not an option.
  int nextOption();

  // The value of the option that was just taken.

  std::string text() const;
  int integer(int lowest, int highest) const;
  /// Zero or more.
  double seconds() const;

  /// The next word; `name` is what the complaint calls it if it is missing.
  std::string word(const char* name);
  int numberWord(const char* name, int lowest, int highest);
  bool hasWords() const;
  /// All words that are left, at least one.
  std::vector<std::string> words(const char* name);
  /// Rejects any word that is left.
  void end() const;

  [[noreturn]] void refuse(const std::string& complaint) const;

 private:
  [[noreturn]] void endWithUsage() const;
  int integerFrom(const std::string& name, const char* text, int lowest, int highest) const;
  std::string optionName() const;

  const int _count;
  char** const _words;
  const char* const _help;
  const std::vector<option> _options;
  int _option = 0;  // the index of the option that was just taken
};

/// Captures the library's log lines while it lives, for a program that prints each failure itself.
class QuietLog {
 public:
  QuietLog();
  QuietLog(const QuietLog&) = delete;
  QuietLog& operator=(const QuietLog&) = delete;
  ~QuietLog();

  /// Why a call failed: its error. A failure without one has written its reason to the log, as for
  /// a log file that cannot be created, or has left it in errno, as for a refused connection.
  std::string reasonOf(const ZPKErrorPtr& error, int number) const;

 private:
  mutable std::mutex _mutex;
  std::string _lastLine;
};

/// The one exception that the library throws, from an open, is a std::out_of_range about this.
inline constexpr const char* kModeIsTooShort =
    "the serial mode is too short, it takes three characters such as 8N1";

/// The number that the whole text is: decimal, without blanks or a plus, whatever the locale. Also
/// "inf" and "nan". Nothing if a double cannot represent it.
std::optional<double> decimalFrom(const std::string& text);

/// What to add to a complaint about a URL that is only a path or only HOST:PORT; otherwise empty.
std::string hintAt(const std::string& url);

/// Text from a stranger, with everything that a terminal would obey or that is not UTF-8 shown as
/// "\x1b".
std::string printable(std::string_view text);

/// A TCP socket that listens on 127.0.0.1, so that only this machine can reach it; passive_tcp and
/// startTCPServerOnPort listen on all interfaces. Port 0 lets the system choose. -1, with errno, if
/// that fails.
int listenOnLoopback(int port);

/// The URL of a listening TCP socket, as the system knows it.
std::string urlOfListener(int listener);
