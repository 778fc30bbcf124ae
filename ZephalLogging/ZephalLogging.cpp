#include "ZephalLogging.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <mutex>
#include <new>

using Sink = std::function<void(int, std::string_view)>;

namespace {

// Lets the calling thread write to a pipe or a socket without a reader and get only EPIPE, not the
// signal: the process must not end because nobody reads its log any more. A SIGPIPE that was
// pending before stays pending.
class WithoutSigpipe {
 public:
  WithoutSigpipe() : _wasPending(isPending()) {
    ::pthread_sigmask(SIG_BLOCK, &sigpipe(), &_before);
  }
  WithoutSigpipe(const WithoutSigpipe&) = delete;
  WithoutSigpipe& operator=(const WithoutSigpipe&) = delete;
  ~WithoutSigpipe() { ::pthread_sigmask(SIG_SETMASK, &_before, nullptr); }

  // Call after a write that failed with EPIPE and so raised the signal.
  void discardSignal() const {
    int taken = 0;
    if (!_wasPending && isPending()) ::sigwait(&sigpipe(), &taken);
  }

  static const sigset_t& sigpipe() {
    static const sigset_t set = [] {
      sigset_t signals;
      ::sigemptyset(&signals);
      ::sigaddset(&signals, SIGPIPE);
      return signals;
    }();
    return set;
  }

 private:
  static bool isPending() {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigpending(&signals);
    return ::sigismember(&signals, SIGPIPE) == 1;
  }

  const bool _wasPending;
  sigset_t _before;
};

}  // namespace

class ZPKLogAnchor {
 public:
  void setSink(Sink sink) {
    auto replaced = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
    const std::lock_guard guard(_sinkMutex);
    const std::lock_guard change(_changeMutex);
    _sink.swap(replaced);
  }

  void write(int level, std::string line) {
    if (!writeToSink(level, line)) writeToStandardError(std::move(line));
  }

  // A fork finds other threads anywhere: in a sink, or in a write to a standard error that nobody
  // drains. It must not wait for them, and they are missing in the child, so the child gets mutexes
  // that nobody holds. Only a change of the sink must not be cut in half.
  void prepareFork() { _changeMutex.lock(); }
  void continueAfterFork() { _changeMutex.unlock(); }
  void beginInChild() {
    _changeMutex.unlock();
    ::new (&_sinkMutex) std::recursive_mutex;
    ::new (&_standardErrorMutex) std::mutex;
  }

 private:
  // Returns whether there is a sink.
  bool writeToSink(int level, std::string_view line) {
    std::shared_ptr<const Sink> sink;  // keeps alive a sink that replaces itself while it runs
    const std::lock_guard guard(_sinkMutex);
    sink = _sink;
    if (sink != nullptr) (*sink)(level, line);
    return sink != nullptr;
  }

  // One write per line, so that the lines of several threads or processes do not mix.
  void writeToStandardError(std::string line) {
    if (!line.ends_with('\n')) line.push_back('\n');
    const std::lock_guard guard(_standardErrorMutex);
    const WithoutSigpipe signals;
    std::string_view rest = line;
    while (!rest.empty()) {
      const ssize_t written = ::write(STDERR_FILENO, rest.data(), rest.size());
      if (written < 0 && errno == EINTR) continue;
      if (written < 0 && errno == EPIPE) signals.discardSignal();
      if (written <= 0) return;
      rest.remove_prefix(static_cast<size_t>(written));
    }
  }

  // Held while a sink runs. Recursive: a sink may itself log or change the sink.
  std::recursive_mutex _sinkMutex;
  std::shared_ptr<const Sink> _sink;  // null for standard error
  std::mutex _changeMutex;            // held while `_sink` is replaced, and during a fork
  // A mutex of its own: a standard error that nobody drains blocks the threads that write to it,
  // and must not block the threads that log to a sink or set one.
  std::mutex _standardErrorMutex;
};

namespace {

// When the library is loaded: a fork in the middle of a first use would leave the child waiting for
// the end of it.
[[maybe_unused]] const int forkHandlers = [] {
  ZPKLogGetAnchor();
  WithoutSigpipe::sigpipe();
  return ::pthread_atfork([] { ZPKLogGetAnchor()->prepareFork(); },
                          [] { ZPKLogGetAnchor()->continueAfterFork(); },
                          [] { ZPKLogGetAnchor()->beginInChild(); });
}();

}  // namespace

void ZPKLogArgument::appendTo(std::string& line) const {
  struct Appender {
    std::string& line;
    void operator()(std::monostate) const { line += "(null)"; }
    void operator()(int64_t value) const { line += std::to_string(value); }
    void operator()(uint64_t value) const { line += std::to_string(value); }
    void operator()(std::string_view text) const { line += text; }
    void operator()(const std::string& text) const { line += text; }
  };
  std::visit(Appender{line}, _value);
}

ZPKLogAnchorPtr ZPKLogGetAnchor() {
  // Never destroyed: threads may still log while the process runs its exit handlers.
  static auto* anchor = new ZPKLogAnchorPtr(std::make_shared<ZPKLogAnchor>());
  return *anchor;
}

std::string ZPKLoggingFormatArguments(const char* format,
                                      std::span<const ZPKLogArgument> arguments) {
  std::string text;
  size_t next = 0;
  for (const char* at = format; *at != '\0'; ++at) {
    if (*at != '%') {
      text.push_back(*at);
      continue;
    }
    const char directive = at[1];
    if (directive == '%') {
      text.push_back('%');
      ++at;
      continue;
    }
    const bool isKnown = directive == '@' || directive == 's' || directive == 'd';
    if (!isKnown || next == arguments.size()) {
      text.push_back('%');
      continue;
    }
    arguments[next++].appendTo(text);
    ++at;
  }
  return text;
}

void ZPKLoggingLogArguments(const ZPKLogAnchorPtr& anchor, int level, const char* format,
                            std::span<const ZPKLogArgument> arguments) {
  if (anchor == nullptr) return;
  const int savedErrno = errno;  // logging must not change the errno that its caller reads next
  anchor->write(level, ZPKLoggingFormatArguments(format, arguments));
  errno = savedErrno;
}

void ZPKLoggingSetSink(std::function<void(int, std::string_view)> sink) {
  ZPKLogGetAnchor()->setSink(std::move(sink));
}
