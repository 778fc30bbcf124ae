#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <future>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Data Channel Internal/ZPILogFileHandle.h"
#include "Support/Files.h"
#include "Support/LogCapture.h"
#include "Support/OpenDescriptors.h"
#include "Support/OrdinaryUser.h"
#include "Support/SignalMask.h"
#include "Support/SystemCalls.h"
#include "Support/TemporaryFolder.h"
#include "Support/TestClock.h"

using namespace support;

namespace {

using testing::ElementsAre;
using Chunks = std::vector<std::string_view>;

void append(const ZPILogFileHandlePtr& handle, const Chunks& chunks) {
  ZPILogBatch batch;
  for (const std::string_view chunk : chunks) batch.add({chunk}, "");
  handle->append(batch);
}

class ZPILogFileHandleTest : public testing::Test {
 protected:
  ZPILogFileHandlePtr create() {
    EXPECT_TRUE(ZPILogFileHandle::createFileAtPath(_path));
    return ZPILogFileHandle::fileHandleForWritingAtPath(_path);
  }
  std::string contents() const { return contentsOfFile(_path); }

  const TemporaryFolder _folder;
  const std::string _path = _folder.pathOf("log");
};

// --- Creating and opening.

TEST_F(ZPILogFileHandleTest, ANewFileHasThePermissions0666LessTheUmask) {
  const mode_t before = ::umask(0);
  for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{077}}) {
    ::umask(mask);
    const std::string path = _folder.pathOf(std::to_string(mask));
    EXPECT_TRUE(ZPILogFileHandle::createFileAtPath(path));
    EXPECT_EQ(permissionsOfFile(path), 0666 & ~mask);
    EXPECT_EQ(contentsOfFile(path), "");
  }
  ::umask(before);
}

TEST_F(ZPILogFileHandleTest, AFileCreatedInTheMeantimeKeepsItsContents) {
  writeFile(_path, "old");
  EXPECT_TRUE(ZPILogFileHandle::createFileAtPath(_path));
  EXPECT_EQ(contents(), "old");
}

TEST_F(ZPILogFileHandleTest, CreatingAFileLeavesNoDescriptorOpen) {
  const std::set<int> before = openDescriptors();
  EXPECT_TRUE(ZPILogFileHandle::createFileAtPath(_path));
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ZPILogFileHandleTest, AFileInAMissingFolderCannotBeCreated) {
  EXPECT_FALSE(ZPILogFileHandle::createFileAtPath(_folder.pathOf("missing/log")));
}

TEST_F(ZPILogFileHandleTest, OpeningNeedsAnExistingFileAndReportsTheReason) {
  EXPECT_EQ(ZPILogFileHandle::fileHandleForWritingAtPath(_path), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(ZPILogFileHandle::fileHandleForWritingAtPath(_folder.path()), nullptr);
  EXPECT_EQ(errno, EISDIR);
}

TEST_F(ZPILogFileHandleTest, AnExistingFileKeepsItsContentsAndPermissions) {
  writeFile(_path, "old");
  ::chmod(_path.c_str(), 0640);
  const auto handle = ZPILogFileHandle::fileHandleForWritingAtPath(_path);
  ASSERT_NE(handle, nullptr);
  append(handle, {"new"});
  EXPECT_EQ(contents(), "oldnew");
  EXPECT_EQ(permissionsOfFile(_path), mode_t{0640});
}

TEST_F(ZPILogFileHandleTest, AStartedProgramDoesNotGetTheDescriptor) {
  const std::set<int> before = openDescriptors();
  const auto handle = create();
  int found = 0;
  for (const int descriptor : openDescriptors()) {
    if (before.contains(descriptor)) continue;
    EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
    ++found;
  }
  EXPECT_EQ(found, 1);
}

TEST_F(ZPILogFileHandleTest, AnInterruptedOpenIsTriedAgain) {
  SystemCalls calls;
  calls.fail("open", EINTR, 0, 2);
  EXPECT_TRUE(ZPILogFileHandle::createFileAtPath(_path));
  calls.fail("open", EINTR, 0, 2);
  EXPECT_NE(ZPILogFileHandle::fileHandleForWritingAtPath(_path), nullptr);
}

// The errno of opening a FIFO without a reader, or nothing if the open waits for a reader.
std::optional<int> errnoOfOpeningFIFO(const std::string& path, const std::function<bool()>& open) {
  auto opening = std::async(std::launch::async, [&] { return open() ? 0 : errno; });
  const bool isDone = opening.wait_for(std::chrono::seconds(2)) == std::future_status::ready;
  const int reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);  // releases the open
  const int number = opening.get();
  ::close(reader);
  return isDone ? std::optional(number) : std::nullopt;
}

TEST_F(ZPILogFileHandleTest, OpeningAFIFODoesNotWaitForAReader) {
  ASSERT_EQ(::mkfifo(_path.c_str(), 0666), 0);
  const auto open = [this] {
    return ZPILogFileHandle::fileHandleForWritingAtPath(_path) != nullptr;
  };
  EXPECT_EQ(errnoOfOpeningFIFO(_path, open), ENXIO);
  const auto create = [this] { return ZPILogFileHandle::createFileAtPath(_path); };
  EXPECT_EQ(errnoOfOpeningFIFO(_path, create), ENXIO);
}

TEST_F(ZPILogFileHandleTest, AnOpenedDescriptorBlocksOnWrites) {
  ASSERT_EQ(::mkfifo(_path.c_str(), 0666), 0);
  const int reader = ::open(_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  const std::set<int> before = openDescriptors();
  const auto handle = ZPILogFileHandle::fileHandleForWritingAtPath(_path);
  ASSERT_NE(handle, nullptr);
  for (const int descriptor : openDescriptors()) {
    if (before.contains(descriptor)) continue;
    EXPECT_EQ(::fcntl(descriptor, F_GETFL) & (O_ACCMODE | O_APPEND | O_NONBLOCK),
              O_WRONLY | O_APPEND);
  }
  ::close(reader);
}

TEST_F(ZPILogFileHandleTest, ADescriptorThatStaysNonBlockingIsNotUsed) {
  const std::set<int> before = openDescriptors();
  EXPECT_TRUE(ZPILogFileHandle::createFileAtPath(_path));
  SystemCalls calls;
  calls.fail("fcntl", EIO);
  EXPECT_EQ(ZPILogFileHandle::fileHandleForWritingAtPath(_path), nullptr);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(openDescriptors(), before);
}

// A file server may hold a lease, which it releases while an ordinary open waits.
TEST_F(ZPILogFileHandleTest, AnOpenWaitsForTheHolderOfALease) {
  EXPECT_TRUE(ZPILogFileHandle::createFileAtPath(_path));
  SystemCalls calls;
  calls.fail("open", EWOULDBLOCK);
  EXPECT_NE(ZPILogFileHandle::fileHandleForWritingAtPath(_path), nullptr);
  EXPECT_EQ(calls.texts({"open"}).back(),
            "open " + _path + " O_WRONLY|O_NOCTTY|O_CLOEXEC|O_APPEND");
}

// --- Closing.

TEST_F(ZPILogFileHandleTest, TheLastReferenceClosesTheDescriptor) {
  const std::set<int> before = openDescriptors();
  auto handle = create();
  EXPECT_EQ(openDescriptors().size(), before.size() + 1);
  handle.reset();
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ZPILogFileHandleTest, CloseClosesTheDescriptorOnce) {
  const std::set<int> before = openDescriptors();
  const auto handle = create();
  handle->close();
  EXPECT_EQ(openDescriptors(), before);
  SystemCalls calls;
  handle->close();
  EXPECT_EQ(calls.count("close"), 0U);
}

TEST_F(ZPILogFileHandleTest, AClosedHandleWritesNothingToItsDescriptorsNextOwner) {
  const auto handle = create();
  handle->close();
  const auto other = ZPILogFileHandle::fileHandleForWritingAtPath(_path);
  append(handle, {"lost"});
  EXPECT_EQ(contents(), "");
  append(other, {"kept"});
  EXPECT_EQ(contents(), "kept");
}

// --- Writing.

TEST_F(ZPILogFileHandleTest, AChunkIsOneWriteUnderTheLock) {
  const auto handle = create();
  const SystemCalls calls;
  append(handle, {"chunk"});
  EXPECT_THAT(calls.texts(), ElementsAre("flock LOCK_EX|LOCK_NB", "write", "flock LOCK_UN"));
  EXPECT_EQ(contents(), "chunk");
}

TEST_F(ZPILogFileHandleTest, ChunksThatWaitTogetherAreOneWriteUnderOneLock) {
  const auto handle = create();
  const SystemCalls calls;
  append(handle, Chunks(1000, "\nchunk"));
  EXPECT_THAT(calls.texts(), ElementsAre("flock LOCK_EX|LOCK_NB", "write", "flock LOCK_UN"));
  EXPECT_EQ(contents().size(), 6000U);
}

// The number of bytes of each write that these chunks take.
std::vector<int64_t> sizesOfWrites(const ZPILogFileHandlePtr& handle, const Chunks& chunks) {
  std::vector<int64_t> sizes;
  const SystemCalls calls;
  append(handle, chunks);
  for (const SystemCall& call : calls.all()) {
    if (call.name == "write") sizes.push_back(call.size);
  }
  EXPECT_EQ(calls.count("flock LOCK_EX|LOCK_NB"), sizes.size());
  EXPECT_EQ(calls.count("flock LOCK_UN"), sizes.size());
  return sizes;
}

TEST_F(ZPILogFileHandleTest, OneLockCoversWholeChunksUpTo64KiB) {
  const auto handle = create();
  const std::string half(32768, 'a');
  const std::string more(32769, 'b');
  EXPECT_THAT(sizesOfWrites(handle, {half, half, half}), ElementsAre(65536, 32768));
  EXPECT_THAT(sizesOfWrites(handle, {half, more, half}), ElementsAre(32768, 32769, 32768));
  EXPECT_EQ(contents(), half + half + half + half + more + half);
}

TEST_F(ZPILogFileHandleTest, ALongerChunkIsOneWriteByItself) {
  const auto handle = create();
  const std::string half(32768, 'a');
  const std::string longer(200000, 'b');
  EXPECT_THAT(sizesOfWrites(handle, {half, longer, half, longer}),
              ElementsAre(32768, 200000, 32768, 200000));
  EXPECT_EQ(contents(), half + longer + half + longer);
}

TEST_F(ZPILogFileHandleTest, WithoutChunksThereAreNoCalls) {
  const auto handle = create();
  const SystemCalls calls;
  append(handle, {});
  EXPECT_EQ(calls.texts().size(), 0U);
}

TEST_F(ZPILogFileHandleTest, AShortWriteIsContinuedUnderTheSameLock) {
  const Chunks chunks{"one", "", "two", "three"};
  for (int64_t size = 1; size <= 11; ++size) {
    const auto handle = create();
    SystemCalls calls;
    calls.shorten("write", size, 0, 100);
    append(handle, chunks);
    EXPECT_EQ(contents(), "onetwothree") << size;
    EXPECT_EQ(calls.count("flock LOCK_EX|LOCK_NB"), 1U);
    EXPECT_EQ(calls.count("write"), static_cast<size_t>((11 + size - 1) / size));
    EXPECT_EQ(calls.texts().back(), "flock LOCK_UN");
    std::filesystem::remove(_path);
  }
}

TEST_F(ZPILogFileHandleTest, AnInterruptedLockOrWriteIsTriedAgain) {
  const auto handle = create();
  SystemCalls calls;
  calls.fail("flock LOCK_EX|LOCK_NB", EINTR, 0, 3);
  calls.fail("write", EINTR, 0, 3);
  append(handle, {"one", "two"});
  EXPECT_EQ(contents(), "onetwo");
  EXPECT_EQ(calls.count("flock LOCK_EX|LOCK_NB"), 4U);
}

TEST_F(ZPILogFileHandleTest, AFailedLockDoesNotPreventTheWrite) {
  const auto handle = create();
  SystemCalls calls;
  calls.fail("flock LOCK_EX|LOCK_NB", ENOLCK);
  append(handle, {"chunk"});
  EXPECT_EQ(contents(), "chunk");
}

TEST_F(ZPILogFileHandleTest, ARefusedChunkIsDroppedAndTheNextIsTried) {
  const auto handle = create();
  SystemCalls calls;
  calls.fail("write", ENOSPC);
  append(handle, {"one", "two", "three"});
  EXPECT_EQ(contents(), "twothree");
}

TEST_F(ZPILogFileHandleTest, TheRestOfAChunkWithoutRoomIsDropped) {
  const auto handle = create();
  SystemCalls calls;
  calls.shorten("write", 5);
  calls.fail("write", ENOSPC, 0);
  append(handle, {"one", "two", "three"});
  EXPECT_EQ(contents(), "onetwthree");
}

TEST_F(ZPILogFileHandleTest, OnADiskWithoutRoomEachChunkIsTried) {
  const auto handle = create();
  SystemCalls calls;
  calls.fail("write", ENOSPC, 0, 3);
  append(handle, {"one", "two", "three", "four"});
  EXPECT_EQ(contents(), "four");
  EXPECT_THAT(
      calls.texts({"flock", "write"}),
      ElementsAre("flock LOCK_EX|LOCK_NB", "write", "write", "write", "write", "flock LOCK_UN"));
}

TEST_F(ZPILogFileHandleTest, AFailureAtTheEndOfAChunkDropsTheNextOne) {
  const auto handle = create();
  SystemCalls calls;
  calls.shorten("write", 3);
  calls.fail("write", EIO, 0);
  append(handle, {"one", "two", "three"});
  EXPECT_EQ(contents(), "onethree");
}

TEST_F(ZPILogFileHandleTest, AWriteThatWritesNothingEnds) {
  const auto handle = create();
  SystemCalls calls;
  calls.answer("write", 0);
  append(handle, {"one", "two"});
  EXPECT_EQ(contents(), "two");
}

TEST_F(ZPILogFileHandleTest, AFullDeviceIsNotAFailure) {
  const auto handle = ZPILogFileHandle::fileHandleForWritingAtPath("/dev/full");
  ASSERT_NE(handle, nullptr);
  const SystemCalls calls;
  append(handle, {"one", "two"});
  EXPECT_EQ(calls.all().at(1).error, ENOSPC);
}

// --- A file that others change or lock.

TEST_F(ZPILogFileHandleTest, AMovedOrRemovedFileStaysOpen) {
  const auto handle = create();
  append(handle, {"one"});
  std::filesystem::rename(_path, _path + ".1");
  append(handle, {"two"});
  EXPECT_EQ(contentsOfFile(_path + ".1"), "onetwo");
  std::filesystem::remove(_path + ".1");
  append(handle, {"three"});
  EXPECT_TRUE(std::filesystem::is_empty(_folder.path()));
}

TEST_F(ZPILogFileHandleTest, ATruncatedFileGrowsFromItsNewEnd) {
  const auto handle = create();
  append(handle, {"one"});
  std::filesystem::resize_file(_path, 0);
  append(handle, {"two"});
  EXPECT_EQ(contents(), "two");
}

// A hole takes no room on the disk.
TEST_F(ZPILogFileHandleTest, ALogOfFourGibibytesGrowsOn) {
  create();
  ASSERT_EQ(::truncate64(_path.c_str(), (int64_t{4} << 30) - 2), 0);
  const auto handle = ZPILogFileHandle::fileHandleForWritingAtPath(_path);
  ASSERT_NE(handle, nullptr);
  append(handle, {"three", "four"});
  struct stat64 file {};
  ASSERT_EQ(::stat64(_path.c_str(), &file), 0);
  EXPECT_EQ(file.st_size, (int64_t{4} << 30) + 7);
}

TEST_F(ZPILogFileHandleTest, AWriteWaitsForTheHolderOfTheLock) {
  const auto handle = create();
  const int other = ::open(_path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(other, LOCK_EX), 0);
  SystemCalls calls;
  calls.before(
      "flock", [&] { EXPECT_EQ(contents(), ""); }, 0, 2);
  calls.before("flock", [&] { ::close(other); });
  append(handle, {"chunk"});
  EXPECT_THAT(calls.texts({"flock", "write"}),
              ElementsAre("flock LOCK_EX|LOCK_NB", "flock LOCK_EX|LOCK_NB", "flock LOCK_EX|LOCK_NB",
                          "write", "flock LOCK_UN"));
  EXPECT_EQ(contents(), "chunk");
}

// Anyone with permission to read a file can lock it.
TEST_F(ZPILogFileHandleTest, AWriteWaitsAtMostASecondAndSaysSo) {
  const LogCapture log;
  const auto handle = create();
  const int other = ::open(_path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(other, LOCK_SH), 0);
  TestClock clock;
  const SkippedWaits skipped(clock);
  append(handle, Chunks(40, "a"));
  EXPECT_GE(clock.passed(), std::chrono::seconds(1));
  EXPECT_LE(clock.passed(), std::chrono::milliseconds(1001));
  EXPECT_EQ(contents(), std::string(40, 'a'));
  const std::vector<LogLine> once{LogLine{
      0, "unable to lock file at path [" + _path + "] within a second, writing without the lock"}};
  EXPECT_EQ(log.lines(), once);
  {
    const SystemCalls calls;
    append(handle, {"b"});
    EXPECT_THAT(calls.texts({"flock", "write"}), ElementsAre("flock LOCK_EX|LOCK_NB", "write"));
  }
  ::close(other);
  const SystemCalls calls;
  append(handle, {"c"});
  EXPECT_THAT(calls.texts({"flock", "write"}),
              ElementsAre("flock LOCK_EX|LOCK_NB", "write", "flock LOCK_UN"));
  EXPECT_EQ(log.lines(), once);
}

TEST_F(ZPILogFileHandleTest, ALockThatIsFreeAgainStillWasTaken) {
  const LogCapture log;
  const auto handle = create();
  const int other = ::open(_path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(other, LOCK_SH), 0);
  TestClock clock;
  const SkippedWaits skipped(clock);
  SystemCalls calls;
  calls.before("write", [&] { ::close(other); });
  append(handle, {std::string(65536, 'a'), "b"});
  EXPECT_EQ(calls.count("flock LOCK_UN"), 1U);
  EXPECT_EQ(contents(), std::string(65536, 'a') + "b");
  EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(ZPILogFileHandleTest, AfterTheLockWasFreeWritesWaitForItAgain) {
  const LogCapture log;
  const auto handle = create();
  const int other = ::open(_path.c_str(), O_RDONLY | O_CLOEXEC);
  ::flock(other, LOCK_EX);
  {
    TestClock clock;
    const SkippedWaits skipped(clock);
    append(handle, {"a"});
  }
  ::flock(other, LOCK_UN);
  append(handle, {"b"});
  ::flock(other, LOCK_EX);
  SystemCalls calls;
  calls.before(
      "flock", [&] { ::close(other); }, 3);
  append(handle, {"c"});
  EXPECT_EQ(calls.count("flock LOCK_EX|LOCK_NB"), 4U);
  EXPECT_EQ(contents(), "abc");
  EXPECT_EQ(log.lines().size(), 1U);
}

// Every write transfers at most three bytes, so that only the lock keeps the chunks together.
TEST_F(ZPILogFileHandleTest, ChunksOfTwoHandlesDoNotInterleave) {
  constexpr int kChunks = 200;
  const Chunks chunks{"\n<aaaaaaaaaa>", "\n<bbbbbbbbbb>"};
  const auto first = create();
  const auto second = ZPILogFileHandle::fileHandleForWritingAtPath(_path);
  SystemCalls calls(SystemCalls::Threads::kAll);
  calls.shorten("write", 3, 0, 1000000);
  std::thread thread([&] {
    for (int i = 0; i < kChunks; ++i) append(first, {chunks[0]});
  });
  for (int i = 0; i < kChunks; ++i) append(second, {chunks[1]});
  thread.join();
  const std::string all = contents();
  ASSERT_EQ(all.size(), 2 * kChunks * chunks[0].size());
  for (size_t at = 0; at < all.size(); at += chunks[0].size()) {
    ASSERT_THAT(chunks, testing::Contains(all.substr(at, chunks[0].size()))) << at;
  }
}

// --- Signals.

void limitFileSize(rlim_t size) {
  const rlimit limit{size, size};
  ::setrlimit(RLIMIT_FSIZE, &limit);
}

TEST_F(ZPILogFileHandleTest, AFileSizeLimitDoesNotEndTheProcess) {
  const ChildResult result = runInChild([&](std::string* message) {
    const auto handle = create();
    limitFileSize(10);
    append(handle, {"12345678", "abcdefgh", "lost"});
    append(handle, {"lost"});
    *message = contents();
    return isBlocked(SIGXFSZ) || isPending(SIGXFSZ) ? 1 : 0;
  });
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.message, "12345678ab");
}

TEST_F(ZPILogFileHandleTest, ABlockedSizeSignalLeavesNoTrace) {
  const ChildResult result = runInChild([&](std::string*) {
    const auto handle = create();
    limitFileSize(0);
    block(SIGXFSZ);
    append(handle, {"lost"});
    return isBlocked(SIGXFSZ) && !isPending(SIGXFSZ) ? 0 : 1;
  });
  EXPECT_EQ(result.status, 0);
}

TEST_F(ZPILogFileHandleTest, ASizeSignalThatWasAlreadyPendingStays) {
  const ChildResult result = runInChild([&](std::string*) {
    const auto handle = create();
    limitFileSize(0);
    block(SIGXFSZ);
    ::raise(SIGXFSZ);
    append(handle, {"lost"});
    return isBlocked(SIGXFSZ) && isPending(SIGXFSZ) ? 0 : 1;
  });
  EXPECT_EQ(result.status, 0);
}

TEST_F(ZPILogFileHandleTest, AnIgnoredSizeSignalDoesNoHarm) {
  const ChildResult result = runInChild([&](std::string*) {
    const auto handle = create();
    limitFileSize(0);
    ::signal(SIGXFSZ, SIG_IGN);
    append(handle, {"lost"});
    return isBlocked(SIGXFSZ) || isPending(SIGXFSZ) ? 1 : 0;
  });
  EXPECT_EQ(result.status, 0);
}

TEST_F(ZPILogFileHandleTest, APipeWithoutAReaderDoesNotEndTheProcess) {
  ASSERT_EQ(::mkfifo(_path.c_str(), 0666), 0);
  const ChildResult result = runInChild([&](std::string*) {
    ::signal(SIGPIPE, SIG_DFL);
    const int reader = ::open(_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const auto handle = ZPILogFileHandle::fileHandleForWritingAtPath(_path);
    ::close(reader);
    append(handle, {"lost", "lost"});
    return isBlocked(SIGPIPE) || isPending(SIGPIPE) ? 1 : 0;
  });
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.status, 0);
}

}  // namespace
