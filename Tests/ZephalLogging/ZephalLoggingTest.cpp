#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <future>
#include <limits>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include "Support/EventWait.h"
#include "Support/OrdinaryUser.h"
#include "ZephalLogging.h"

using namespace support;

namespace {

using testing::ElementsAre;

// Redirects the process's standard error to another file while it lives.
class StandardErrorTo {
 public:
  explicit StandardErrorTo(int file)
      : _file(file), _original(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)) {
    ::dup2(_file, STDERR_FILENO);
  }
  StandardErrorTo(const StandardErrorTo&) = delete;
  StandardErrorTo& operator=(const StandardErrorTo&) = delete;
  ~StandardErrorTo() {
    ::dup2(_original, STDERR_FILENO);
    ::close(_original);
    ::close(_file);
  }

  std::string text() const {
    std::string text;
    char buffer[4096];
    ssize_t count = 0;
    while ((count = ::pread(_file, buffer, sizeof buffer, static_cast<off_t>(text.size()))) > 0) {
      text.append(buffer, static_cast<size_t>(count));
    }
    return text;
  }

 private:
  const int _file;
  const int _original;
};

int memoryFile() { return ::memfd_create("standard error", MFD_CLOEXEC); }

// Captures the lines while it lives, as a host program's logger would.
class SinkForATest {
 public:
  SinkForATest() {
    ZPKLoggingSetSink([this](int level, std::string_view line) {
      lines.push_back(std::to_string(level) + " " + std::string(line));
    });
  }
  SinkForATest(const SinkForATest&) = delete;
  SinkForATest& operator=(const SinkForATest&) = delete;
  ~SinkForATest() { ZPKLoggingSetSink(nullptr); }

  std::vector<std::string> lines;
};

struct Describable {
  std::string debugDescription() const { return text; }
  std::string text;
};

void logLine(const char* line) { ZPKLoggingLog(ZPKLogGetAnchor(), 0, "%s", line); }

TEST(ZephalLoggingTest, AFormatWithoutDirectivesIsLoggedUnchanged) {
  EXPECT_EQ(ZPKLoggingFormat(""), "");
  EXPECT_EQ(ZPKLoggingFormat("Invalid TCP host"), "Invalid TCP host");
}

TEST(ZephalLoggingTest, DirectivesUseTheArgumentsInOrder) {
  EXPECT_EQ(ZPKLoggingFormat("%@ - %s(%d)", std::string("/dev/tty"), "No such file", 2),
            "/dev/tty - No such file(2)");
}

TEST(ZephalLoggingTest, IntegersOfEverySizeAndSignAreExact) {
  EXPECT_EQ(ZPKLoggingFormat("%d %d", 0, -1), "0 -1");
  EXPECT_EQ(ZPKLoggingFormat("%d", std::numeric_limits<int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(ZPKLoggingFormat("%d", std::numeric_limits<int64_t>::max()), "9223372036854775807");
  EXPECT_EQ(ZPKLoggingFormat("%d", std::numeric_limits<uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(ZPKLoggingFormat("%d %d", true, uint16_t{65535}), "1 65535");
}

TEST(ZephalLoggingTest, NullObjectsAndStringsShowAsNull) {
  const char* noText = nullptr;
  const std::optional<std::string> noString;
  const std::optional<std::string_view> noView;
  const std::optional<Describable> noObject;
  const std::shared_ptr<Describable> noPointer;
  EXPECT_EQ(
      ZPKLoggingFormat("%s %@ %@ %@ %@ %@", noText, noString, noView, noObject, noPointer, nullptr),
      "(null) (null) (null) (null) (null) (null)");
}

TEST(ZephalLoggingTest, EmptyStringsAreNotNull) {
  EXPECT_EQ(ZPKLoggingFormat("[%s][%@][%@]", "", std::string(), std::optional<std::string>("")),
            "[][][]");
  EXPECT_EQ(ZPKLoggingFormat("[%@]", std::string_view()), "[]");
}

TEST(ZephalLoggingTest, ObjectsAppearAsTheirOwnText) {
  const auto shared = std::make_shared<const Describable>(Describable{"shared"});
  EXPECT_EQ(ZPKLoggingFormat("%@, %@, %@", Describable{"plain"}, shared,
                             std::optional<Describable>(Describable{"optional"})),
            "plain, shared, optional");
}

TEST(ZephalLoggingTest, TextOfAnArgumentIsNeverTakenForAFormat) {
  EXPECT_EQ(ZPKLoggingFormat("%@|%@", "%s%n%@%%%d", std::string("100%")), "%s%n%@%%%d|100%");
}

TEST(ZephalLoggingTest, ANulInAnArgumentIsKept) {
  EXPECT_EQ(ZPKLoggingFormat("%@", std::string_view("a\0b", 3)), std::string("a\0b", 3));
}

TEST(ZephalLoggingTest, TwoPercentSignsMakeOne) {
  EXPECT_EQ(ZPKLoggingFormat("%d%%", 50), "50%");
  EXPECT_EQ(ZPKLoggingFormat("%%@", "unused"), "%@");
}

TEST(ZephalLoggingTest, ADirectiveWithoutAnArgumentStaysUnchanged) {
  EXPECT_EQ(ZPKLoggingFormat("%@ %s %d"), "%@ %s %d");
  EXPECT_EQ(ZPKLoggingFormat("%@ %s", 1), "1 %s");
}

TEST(ZephalLoggingTest, ArgumentsWithoutADirectiveAreLeftOut) {
  EXPECT_EQ(ZPKLoggingFormat("%@", 1, 2, 3), "1");
}

TEST(ZephalLoggingTest, UnknownDirectivesStayUnchangedAndUseNoArgument) {
  EXPECT_EQ(ZPKLoggingFormat("%x %n %5d %@", 7), "%x %n %5d 7");
  EXPECT_EQ(ZPKLoggingFormat("%"), "%");
  EXPECT_EQ(ZPKLoggingFormat("100%", 1), "100%");
}

TEST(ZephalLoggingTest, AWrongPairingShowsTheArgumentsOwnText) {
  EXPECT_EQ(ZPKLoggingFormat("%d %s", "text", 5), "text 5");
}

TEST(ZephalLoggingTest, TheAnchorIsTheSameEveryTimeAndNeverNull) {
  ASSERT_NE(ZPKLogGetAnchor(), nullptr);
  EXPECT_EQ(ZPKLogGetAnchor(), ZPKLogGetAnchor());
}

TEST(ZephalLoggingTest, ALineGoesToStandardErrorByDefault) {
  const StandardErrorTo capture(memoryFile());
  ZPKLoggingLog(ZPKLogGetAnchor(), 0, "Invalid %@", "TCP host");
  ZPKLoggingLog(ZPKLogGetAnchor(), 1, "second");
  EXPECT_EQ(capture.text(), "Invalid TCP host\nsecond\n");
}

TEST(ZephalLoggingTest, NoSecondLineFeedIsAddedToAFormat) {
  const StandardErrorTo capture(memoryFile());
  ZPKLoggingLog(ZPKLogGetAnchor(), 0, "Error in deserialization %@\n", nullptr);
  ZPKLoggingLog(ZPKLogGetAnchor(), 0, "");
  EXPECT_EQ(capture.text(), "Error in deserialization (null)\n\n");
}

TEST(ZephalLoggingTest, ANullAnchorWritesNothing) {
  const StandardErrorTo capture(memoryFile());
  ZPKLoggingLog(nullptr, 0, "lost");
  EXPECT_EQ(capture.text(), "");
}

TEST(ZephalLoggingTest, LinesOfSeveralThreadsArriveWholeAndInOrder) {
  constexpr int kThreads = 4;
  constexpr int kLines = 200;
  const std::string filler(300, '.');
  const StandardErrorTo capture(memoryFile());
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([thread, &filler] {
      for (int line = 0; line < kLines; ++line) {
        ZPKLoggingLog(ZPKLogGetAnchor(), 0, "%d %d %s", thread, line, filler);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  std::map<int, int> nextLine;
  std::istringstream stream(capture.text());
  std::string text;
  while (std::getline(stream, text)) {
    int thread = -1;
    int line = -1;
    std::string rest;
    std::istringstream(text) >> thread >> line >> rest;
    EXPECT_EQ(line, nextLine[thread]++) << text;
    EXPECT_EQ(rest, filler);
  }
  EXPECT_THAT(nextLine, ElementsAre(std::pair(0, kLines), std::pair(1, kLines),
                                    std::pair(2, kLines), std::pair(3, kLines)));
}

TEST(ZephalLoggingTest, ALineLongerThanAPipesBufferArrivesWhole) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const std::string line(300'000, 'x');
  std::string received;
  std::thread reader([&received, end = ends[0]] {
    char buffer[4096];
    ssize_t count = 0;
    while ((count = ::read(end, buffer, sizeof buffer)) > 0) {
      received.append(buffer, static_cast<size_t>(count));
    }
  });
  {
    const StandardErrorTo pipe(ends[1]);
    ZPKLoggingLog(ZPKLogGetAnchor(), 0, "%@", line);
  }
  reader.join();
  ::close(ends[0]);
  EXPECT_EQ(received, line + "\n");
}

TEST(ZephalLoggingTest, AStandardErrorThatCannotBeWrittenIsIgnored) {
  const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);
  const StandardErrorTo device(full);
  errno = ENOENT;
  logLine("lost");
  EXPECT_EQ(errno, ENOENT);
}

TEST(ZephalLoggingTest, AClosedStandardErrorPipeEndsNoProcess) {
  const ChildResult result = runInChild([](std::string*) {
    ::signal(SIGPIPE, SIG_DFL);
    int ends[2];
    if (::pipe(ends) != 0) return 2;
    const StandardErrorTo pipe(ends[1]);
    ::close(ends[0]);
    logLine("lost");
    logLine("lost");
    sigset_t blocked;
    sigset_t pending;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    ::sigpending(&pending);
    return ::sigismember(&blocked, SIGPIPE) == 1 || ::sigismember(&pending, SIGPIPE) == 1 ? 1 : 0;
  });
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.status, 0);
}

TEST(ZephalLoggingTest, APendingSignalIsStillPendingAfterALine) {
  const ChildResult result = runInChild([](std::string*) {
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ::raise(SIGPIPE);
    int ends[2];
    if (::pipe(ends) != 0) return 2;
    const StandardErrorTo pipe(ends[1]);
    ::close(ends[0]);
    logLine("lost");
    sigset_t pending;
    ::sigpending(&pending);
    return ::sigismember(&pending, SIGPIPE) == 1 ? 0 : 1;
  });
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.status, 0);
}

TEST(ZephalLoggingTest, ASinkReceivesTheLinesWithTheirLevels) {
  const StandardErrorTo capture(memoryFile());
  const SinkForATest sink;
  ZPKLoggingLog(ZPKLogGetAnchor(), 0, "failure %d", 2);
  ZPKLoggingLog(ZPKLogGetAnchor(), 1, "notice");
  EXPECT_THAT(sink.lines, ElementsAre("0 failure 2", "1 notice"));
  EXPECT_EQ(capture.text(), "");
}

TEST(ZephalLoggingTest, ASinkReceivesALineExactlyAsFormatted) {
  const SinkForATest sink;
  ZPKLoggingLog(ZPKLogGetAnchor(), 0, "regex:%@\nresponse:%@\n", "a", "b");
  ZPKLoggingLog(ZPKLogGetAnchor(), 0, "");
  EXPECT_THAT(sink.lines, ElementsAre("0 regex:a\nresponse:b\n", "0 "));
}

TEST(ZephalLoggingTest, AnEmptySinkRestoresStandardError) {
  const StandardErrorTo capture(memoryFile());
  { const SinkForATest sink; }
  logLine("back");
  EXPECT_EQ(capture.text(), "back\n");
}

TEST(ZephalLoggingTest, AReplacedSinkIsDestroyedAndNoLongerCalled) {
  auto calls = std::make_shared<int>(0);
  ZPKLoggingSetSink([calls](int, std::string_view) { ++*calls; });
  logLine("first");
  EXPECT_EQ(calls.use_count(), 2);
  {
    const SinkForATest sink;
    EXPECT_EQ(calls.use_count(), 1);
    logLine("second");
  }
  EXPECT_EQ(*calls, 1);
}

TEST(ZephalLoggingTest, ASinkMayLog) {
  std::vector<std::string> lines;
  ZPKLoggingSetSink([&lines](int, std::string_view line) {
    lines.emplace_back(line);
    if (lines.size() < 3) logLine("from the sink");
  });
  logLine("outer");
  ZPKLoggingSetSink(nullptr);
  EXPECT_THAT(lines, ElementsAre("outer", "from the sink", "from the sink"));
}

TEST(ZephalLoggingTest, ASinkThatReplacesItselfLivesUntilItReturns) {
  const StandardErrorTo capture(memoryFile());
  auto state = std::make_shared<std::string>("the sink's own text, on the heap");
  const std::weak_ptr<std::string> watch = state;
  std::string seen;
  ZPKLoggingSetSink([state = std::move(state), &seen](int, std::string_view) {
    ZPKLoggingSetSink(nullptr);
    seen = *state;
  });
  logLine("to the sink");
  logLine("to standard error");
  EXPECT_EQ(seen, "the sink's own text, on the heap");
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(capture.text(), "to standard error\n");
}

TEST(ZephalLoggingTest, OnlyOneThreadAtATimeCallsASink) {
  constexpr int kThreads = 4;
  constexpr int kLines = 250;
  int calls = 0;  // deliberately neither atomic nor locked
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  ZPKLoggingSetSink([&](int, std::string_view) {
    if (inside.fetch_add(1, std::memory_order_relaxed) != 0) ++overlaps;
    ++calls;
    inside.fetch_sub(1, std::memory_order_relaxed);
  });
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([] {
      for (int line = 0; line < kLines; ++line) logLine("line");
    });
  }
  for (std::thread& thread : threads) thread.join();
  ZPKLoggingSetSink(nullptr);
  EXPECT_EQ(calls, kThreads * kLines);
  EXPECT_EQ(overlaps, 0);
}

TEST(ZephalLoggingTest, SinksMayBeReplacedWhileOtherThreadsLog) {
  constexpr int kLines = 500;
  std::atomic<int> calls{0};
  std::atomic<int> running{2};
  const auto sink = [&calls](int, std::string_view line) {
    if (line == "line") calls.fetch_add(1, std::memory_order_relaxed);
  };
  ZPKLoggingSetSink(sink);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 2; ++thread) {
    threads.emplace_back([&running] {
      for (int line = 0; line < kLines; ++line) logLine("line");
      running.fetch_sub(1, std::memory_order_release);
    });
  }
  while (running.load(std::memory_order_acquire) > 0) ZPKLoggingSetSink(sink);
  for (std::thread& thread : threads) thread.join();
  ZPKLoggingSetSink(nullptr);
  EXPECT_EQ(calls, 2 * kLines);
}

// The other thread is missing in the child, so nobody there would release what it holds.
TEST(ZephalLoggingTest, AChildForkedDuringACallOfASinkCanLog) {
  std::promise<void> called;
  std::promise<void> released;
  std::atomic<int> calls{0};
  ZPKLoggingSetSink([&](int, std::string_view) {
    if (calls++ > 0) return;
    called.set_value();
    released.get_future().wait();
  });
  std::thread logging([] { logLine("line"); });
  called.get_future().wait();
  const ChildResult result = runInChild([&](std::string*) {
    logLine("line of the child");
    ZPKLoggingSetSink(nullptr);
    return calls == 2 ? 0 : 1;
  });
  released.set_value();
  logging.join();
  ZPKLoggingSetSink(nullptr);
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
}

TEST(ZephalLoggingTest, AChildForkedByASinkCanLog) {
  ChildResult result;
  ZPKLoggingSetSink([&](int, std::string_view line) {
    if (line != "fork") return;
    result = runInChild([](std::string*) {
      logLine("within the sink");
      ZPKLoggingSetSink(nullptr);
      return 0;
    });
  });
  logLine("fork");
  logLine("after the fork");
  ZPKLoggingSetSink(nullptr);
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
}

// A standard error that nobody drains, with a thread stuck in writing a line that does not fit. The
// line passes once letGo() is called.
class StuckStandardError {
 public:
  StuckStandardError() {
    EXPECT_EQ(::pipe2(_ends, O_CLOEXEC), 0);
    _pipe.emplace(_ends[1]);
    _line = std::async(std::launch::async, [] { logLine(std::string(300'000, 'x').c_str()); });
    EXPECT_TRUE(waitFor([this] { return !takesMore(); }));
  }
  StuckStandardError(const StuckStandardError&) = delete;
  StuckStandardError& operator=(const StuckStandardError&) = delete;
  ~StuckStandardError() { letGo(); }

  // Drains the pipe and returns everything that was written.
  std::string letGo() {
    std::string text;
    if (!_pipe.has_value()) return text;
    char buffer[4096];
    const auto read = [&] { return ::read(_ends[0], buffer, sizeof buffer); };
    while (text.empty() || text.back() != '\n') text.append(buffer, static_cast<size_t>(read()));
    _line.get();
    _pipe.reset();
    ::close(_ends[0]);
    return text;
  }

 private:
  bool takesMore() const {
    pollfd end{_ends[1], POLLOUT, 0};
    return ::poll(&end, 1, 0) == 1;
  }

  int _ends[2] = {-1, -1};
  std::optional<StandardErrorTo> _pipe;
  std::future<void> _line;
};

TEST(ZephalLoggingTest, AStuckStandardErrorDoesNotDelayANewSink) {
  StuckStandardError standardError;
  std::atomic<int> lines{0};
  auto replacing = std::async(std::launch::async, [&] {
    ZPKLoggingSetSink([&](int, std::string_view) { ++lines; });
    logLine("to the sink");
  });
  EXPECT_EQ(replacing.wait_for(std::chrono::seconds(2)), std::future_status::ready);
  EXPECT_EQ(standardError.letGo(), std::string(300'000, 'x') + "\n");
  replacing.get();
  EXPECT_EQ(lines, 1);
  ZPKLoggingSetSink(nullptr);
}

TEST(ZephalLoggingTest, ANewSinkWaitsForTheCallUnderWay) {
  std::promise<void> entered;
  std::promise<void> released;
  std::atomic<bool> hasReturned{false};
  ZPKLoggingSetSink([&](int, std::string_view) {
    entered.set_value();
    released.get_future().wait_for(kPatience);
    hasReturned = true;
  });
  std::thread logger([] { logLine("slow"); });
  entered.get_future().wait();
  auto replacing = std::async(std::launch::async, [&] {
    ZPKLoggingSetSink(nullptr);
    return hasReturned.load();
  });
  // There is no event for "has not returned"; a short wait is enough to catch one that returns.
  EXPECT_EQ(replacing.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  released.set_value();
  EXPECT_TRUE(replacing.get());
  logger.join();
}

TEST(ZephalLoggingTest, AChildForkedDuringAStuckLineCanLog) {
  StuckStandardError standardError;
  const ChildResult result = runInChild([](std::string*) {
    const StandardErrorTo capture(memoryFile());
    logLine("line of the child");
    return capture.text() == "line of the child\n" ? 0 : 1;
  });
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
}

TEST(ZephalLoggingTest, ErrnoIsKept) {
  const StandardErrorTo capture(memoryFile());
  errno = EAGAIN;
  logLine("default");
  EXPECT_EQ(errno, EAGAIN);
  ZPKLoggingSetSink([](int, std::string_view) { errno = EBADF; });
  errno = EINTR;
  logLine("sink");
  EXPECT_EQ(errno, EINTR);
  ZPKLoggingSetSink(nullptr);
}

}  // namespace
