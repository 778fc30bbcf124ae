#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>

#include "Support/OrdinaryUser.h"
#include "Support/SignalMask.h"
#include "Support/TemporaryFolder.h"
#include "Utility/ZPIWithoutSignalsOfWriting.h"

using namespace support;

namespace {

// The errno of a write to a pipe that nobody reads.
int writeToNobody() {
  int ends[2];
  if (::pipe(ends) != 0) return -1;
  ::close(ends[0]);
  const int number = ::write(ends[1], "x", 1) == -1 ? errno : 0;
  ::close(ends[1]);
  return number;
}

// Expects `run` to return true, in a child process that any signal would end.
void expectGood(const std::function<bool()>& run) {
  const ChildResult result = runInChild([&run](std::string*) {
    ::signal(SIGPIPE, SIG_DFL);
    return run() ? 0 : 1;
  });
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.status, 0);
}

TEST(ZPIWithoutSignalsOfWritingTest, BlocksItsSignalsWhileItLives) {
  expectGood([] {
    {
      const ZPIWithoutSignalsOfWriting signals;
      if (!isBlocked(SIGPIPE) || !isBlocked(SIGXFSZ) || isBlocked(SIGTERM)) return false;
    }
    return !isBlocked(SIGPIPE) && !isBlocked(SIGXFSZ);
  });
}

TEST(ZPIWithoutSignalsOfWritingTest, WritingToAPipeWithoutReadersOnlyFailsWithEpipe) {
  expectGood([] {
    ZPIWithoutSignalsOfWriting signals;
    if (writeToNobody() != EPIPE || !isPending(SIGPIPE)) return false;
    signals.discardSignalOf(EPIPE);
    return !isPending(SIGPIPE);
  });
}

TEST(ZPIWithoutSignalsOfWritingTest, WritingBeyondAFileSizeLimitOnlyFailsWithEfbig) {
  const TemporaryFolder folder;
  expectGood([&folder] {
    const int file = ::open(folder.pathOf("file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    const rlimit limit{0, 0};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    ZPIWithoutSignalsOfWriting signals;
    if (::write(file, "x", 1) != -1 || errno != EFBIG || !isPending(SIGXFSZ)) return false;
    signals.discardSignalOf(EFBIG);
    return !isPending(SIGXFSZ);
  });
}

TEST(ZPIWithoutSignalsOfWritingTest, AnAlreadyPendingSignalStaysPending) {
  expectGood([] {
    block(SIGPIPE);
    ::raise(SIGPIPE);
    {
      ZPIWithoutSignalsOfWriting signals;
      if (writeToNobody() != EPIPE) return false;
      signals.discardSignalOf(EPIPE);
    }
    return isPending(SIGPIPE) && isBlocked(SIGPIPE);
  });
}

TEST(ZPIWithoutSignalsOfWritingTest, DiscardingASignalThatNeverCameDoesNotWait) {
  expectGood([] {
    ::signal(SIGPIPE, SIG_IGN);
    ZPIWithoutSignalsOfWriting signals;
    const bool isRefused = writeToNobody() == EPIPE;
    for (const int number : {EPIPE, EFBIG, EIO, 0}) signals.discardSignalOf(number);
    return isRefused && !isPending(SIGPIPE);
  });
}

}  // namespace
