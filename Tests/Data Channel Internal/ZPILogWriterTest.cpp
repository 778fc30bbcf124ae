#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <future>
#include <memory>
#include <semaphore>
#include <set>
#include <string>
#include <thread>

#include "Data Channel Internal/ZPILogWriter.h"
#include "Support/BusyWriter.h"
#include "Support/EventWait.h"
#include "Support/Files.h"
#include "Support/HeldLogWrite.h"
#include "Support/OpenDescriptors.h"
#include "Support/ProcessStatus.h"
#include "Support/ProcessThreads.h"
#include "Support/SystemCalls.h"
#include "Support/TemporaryFolder.h"
#include "Support/ThreadCalls.h"

using namespace support;

namespace {

class ZPILogWriterTest : public testing::Test {
 protected:
  void SetUp() override { _writer->setOwner(_owner); }

  // Adds a chunk of just this text.
  void add(std::string_view chunk) { _writer->addChunk({chunk}, ""); }
  void open() { ASSERT_TRUE(_writer->openFile({"open"}, nullptr)); }
  void openWithoutThread() {
    const RefusedThreads refused;
    open();
  }
  std::string contents() const { return contentsOfFile(_path); }
  // The number of chunks in the file, if each is one letter.
  size_t writtenLetters() const { return contents().size(); }

  const TemporaryFolder _folder;
  const std::string _path = _folder.pathOf("log");
  std::shared_ptr<int> _owner = std::make_shared<int>();
  std::unique_ptr<ZPILogWriter> _writer = std::make_unique<ZPILogWriter>(_path);
};

// --- The file.

TEST_F(ZPILogWriterTest, ANewWriterIsClosedAndNotSynchronous) {
  EXPECT_EQ(_writer->fileHandle(), nullptr);
  EXPECT_FALSE(_writer->isSynchronous());
  EXPECT_EQ(_writer->process(), ::getpid());
  EXPECT_EQ(_writer->parents(), nullptr);
  EXPECT_FALSE(std::filesystem::exists(_path));
}

TEST_F(ZPILogWriterTest, ClosingWritesAllChunksInOrder) {
  open();
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    add("\n" + std::to_string(i));
    expected += "\n" + std::to_string(i);
  }
  _writer->closeFile();
  EXPECT_EQ(contents(), expected);
  EXPECT_EQ(_writer->fileHandle(), nullptr);
}

TEST_F(ZPILogWriterTest, ChunksBeforeOpenAndAfterCloseAreDropped) {
  add("before");
  open();
  add("while");
  _writer->closeFile();
  add("after");
  open();
  _writer->closeFile();
  EXPECT_EQ(contents(), "while");
}

TEST_F(ZPILogWriterTest, AnErrorOfTheSystemIsAtTheCallersSite) {
  std::filesystem::create_directory(_path);
  ZPKErrorPtr error;
  EXPECT_FALSE(_writer->openFile({"theCaller"}, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), EISDIR);
  EXPECT_THAT(error->location(), testing::HasSubstr("ZPILogWriterTest.cpp:theCaller:"));
}

// --- The owner.

TEST_F(ZPILogWriterTest, WithoutItsOwnerOnlyTheDestructorWrites) {
  openWithoutThread();
  add("one ");
  EXPECT_EQ(contents(), "one ");
  _owner.reset();
  add("two ");
  add("three");
  EXPECT_EQ(contents(), "one ");
  _writer.reset();
  EXPECT_EQ(contents(), "one two three");
}

TEST_F(ZPILogWriterTest, ATaskHoldsTheOwnerWhileItWrites) {
  open();
  HeldLogWrite held;
  add("chunk");
  EXPECT_TRUE(held.waitUntilHeld());
  EXPECT_EQ(_owner.use_count(), 2);
  held.release();
  _writer->closeFile();
  EXPECT_EQ(_owner.use_count(), 1);
}

// --- Chunks that arrive faster than they are written.

TEST_F(ZPILogWriterTest, ChunksThatWaitTogetherAreWrittenTogether) {
  open();
  HeldLogWrite held;
  add("1");
  EXPECT_TRUE(held.waitUntilHeld());
  for (int i = 0; i < 16; ++i) add("2");
  held.release();
  _writer->closeFile();
  EXPECT_EQ(held.calls.count("write"), 2U);
  EXPECT_EQ(contents(), "1" + std::string(16, '2'));
}

// Takes the shortest of many delays, since any of them may be long on a busy machine.
TEST_F(ZPILogWriterTest, TheFirstChunkDoesNotWaitForAnother) {
  using Clock = std::chrono::steady_clock;
  Clock::duration shortest = Clock::duration::max();
  for (int i = 0; i < 50; ++i) {
    open();
    std::promise<Clock::time_point> written;
    SystemCalls calls(SystemCalls::Threads::kAll);
    calls.before("write", [&] { written.set_value(Clock::now()); });
    const auto start = Clock::now();
    add("chunk");
    auto time = written.get_future();
    ASSERT_EQ(time.wait_for(kPatience), std::future_status::ready);
    shortest = std::min(shortest, time.get() - start);
    _writer->closeFile();
  }
  EXPECT_LT(shortest, std::chrono::milliseconds(1));
}

// Every write adds the next chunk, so that the traffic never pauses by itself.
TEST_F(ZPILogWriterTest, AnOpenSucceedsDuringBusyTraffic) {
  open();
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  std::atomic<bool> isBusy{true};
  SystemCalls calls(SystemCalls::Threads::kAll);
  const auto addAnother = [&] {
    if (std::chrono::steady_clock::now() > end) isBusy = false;
    if (isBusy) add("more");
  };
  calls.before("write", addAnother, 0, SIZE_MAX);
  add("first");
  open();
  EXPECT_TRUE(isBusy.exchange(false));
  _writer->closeFile();
}

TEST_F(ZPILogWriterTest, APauseFreesTheMemoryOfBusyTraffic) {
  constexpr size_t kChunks = 64;
  const std::string chunk(65536, 'x');
  open();
  const size_t before = allocatedBytes();
  HeldLogWrite held;
  for (size_t i = 0; i < kChunks; ++i) add(chunk);
  held.release();
  EXPECT_TRUE(waitFor([&] { return std::filesystem::file_size(_path) == kChunks * chunk.size(); }));
  if (isMemoryComparable()) {
    EXPECT_TRUE(waitFor([&] { return allocatedBytes() < before + chunk.size(); }));
  }
  _writer->closeFile();
}

TEST_F(ZPILogWriterTest, NoChunkWaitsForAnotherWhileTheModeChanges) {
  constexpr size_t kRounds = 2000;
  open();
  std::atomic<bool> isDone{false};
  std::thread changer([&] {
    while (!isDone) _writer->setSynchronous(!_writer->isSynchronous());
  });
  for (size_t i = 0; i < kRounds; ++i) add("x");
  isDone = true;
  changer.join();
  _writer->setSynchronous(false);
  add("y");
  // Without a close, the chunks reach the file by themselves.
  EXPECT_TRUE(waitFor([this] { return writtenLetters() == kRounds + 1; }));
  EXPECT_EQ(contents().back(), 'y');
  _writer->closeFile();
}

// --- The thread.

TEST_F(ZPILogWriterTest, AnOpenFileHasOneThreadNamedAfterIt) {
  EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 0; }));
  for (int i = 0; i < 2; ++i) {
    open();
    EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 1; }));
  }
  for (size_t i = 1; i <= 2; ++i) {
    add("x");
    EXPECT_TRUE(waitFor([&] { return writtenLetters() == i; }));
    EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 1; }));
  }
  _writer->closeFile();
  EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 0; }));
}

TEST_F(ZPILogWriterTest, AFileThatCannotBeOpenedHasNoThread) {
  EXPECT_FALSE(ZPILogWriter(_folder.path()).openFile({"open"}, nullptr));
  EXPECT_TRUE(waitFor([this] { return threadsNamed(_folder.path()) == 0; }));
}

TEST_F(ZPILogWriterTest, ASynchronousWriterHasNoThreadUntilItIsAsynchronous) {
  _writer->setSynchronous(true);
  open();
  add("x");
  EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 0; }));
  _writer->setSynchronous(false);
  EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 1; }));
  _writer->closeFile();
  _writer->setSynchronous(false);
  EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 0; }));
}

TEST_F(ZPILogWriterTest, WithoutAThreadWritesAndAConcurrentCloseReturn) {
  for (int i = 0; i < 20; ++i) {
    const RefusedThreads refused;
    open();
    BusyWriter busy([this](size_t) { add("x"); }, false);
    _writer->closeFile();
    busy.stop();
  }
}

// Each write by this thread makes the other one add a chunk.
TEST_F(ZPILogWriterTest, WithoutAThreadACallWritesOnceWhileOthersWrite) {
  const RefusedThreads refused;
  open();
  std::counting_semaphore<> wanted(0);
  std::atomic<bool> isDone{false};
  std::thread other([&] {
    const RefusedThreads refusedToo;
    for (wanted.acquire(); !isDone; wanted.acquire()) add("other");
  });
  for (int i = 0; i < 20; ++i) {
    SystemCalls calls;
    calls.before(
        "write", [&] { wanted.release(); }, 0, 100);
    add("own");
    EXPECT_LE(calls.count("write"), 1U);
  }
  isDone = true;
  wanted.release();
  other.join();
  _writer->closeFile();
}

// --- The writer of a child process, created by hand in the same process.

TEST_F(ZPILogWriterTest, AChildsWriterTakesOverFileModeAndOwner) {
  const RefusedThreads refused;
  open();
  _writer->setSynchronous(true);
  ZPILogWriter child(_writer.get());
  EXPECT_EQ(child.parents(), _writer.get());
  EXPECT_EQ(child.fileHandle(), _writer->fileHandle());
  EXPECT_TRUE(child.isSynchronous());
  child.setSynchronous(false);
  child.addChunk({"child"}, "");  // written by a task, which needs the owner
  EXPECT_EQ(contents(), "child");
}

TEST_F(ZPILogWriterTest, TheChildDoesNotWriteTheParentsPendingChunks) {
  open();
  HeldLogWrite held;
  add("first ");
  EXPECT_TRUE(held.waitUntilHeld());
  add("second");
  {
    ZPILogWriter child(_writer.get());
    child.addChunk({"child "}, "");
  }
  EXPECT_EQ(contents(), "child ");
  held.release();
  _writer->closeFile();
  EXPECT_EQ(contents(), "child first second");
}

TEST_F(ZPILogWriterTest, AnAbandonedWriterHoldsNeitherFileNorOwner) {
  const std::set<int> before = openDescriptors();
  openWithoutThread();
  const std::weak_ptr<int> owner = _owner;
  _writer->abandon();
  EXPECT_EQ(openDescriptors(), before);
  _owner.reset();
  EXPECT_TRUE(owner.expired());
  add("lost");
  _writer.reset();
  EXPECT_EQ(contents(), "");
}

}  // namespace
