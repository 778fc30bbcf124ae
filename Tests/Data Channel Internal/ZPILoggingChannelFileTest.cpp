#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Data Channel Internal/ZPILoggingChannel.h"
#include "Support/Bytes.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/Files.h"
#include "Support/LocationPrefix.h"
#include "Support/LogCapture.h"
#include "Support/LogFile.h"
#include "Support/LoggingChannelFixture.h"
#include "Support/OrdinaryUser.h"
#include "Support/ScriptedChannel.h"
#include "Support/SystemCalls.h"
#include "Support/TemporaryFolder.h"
#include "Support/TestClock.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using ZPILoggingChannelFileTest = LoggingChannelFixture;

// --- A file that cannot be opened.

TEST_F(ZPILoggingChannelFileTest, AMissingFolderIsLoggedWithoutAnError) {
  const std::string path = _folder.pathOf("missing/log");
  _below->setOpened(false);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(make(path)->openWithTimeout(1.0, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_THAT(_below->calls(), IsEmpty());
  EXPECT_FALSE(_below->isOpened());
  EXPECT_THAT(_log.lines(),
              ElementsAre(LogLine{0, "unable to open file at path [" + path +
                                         "] with error (2): No such file or directory, unable to "
                                         "create file at path [" +
                                         path + "]"}));
}

TEST_F(ZPILoggingChannelFileTest, TheLineSaysWhyTheFileWasNotFound) {
  writeFile(_folder.pathOf("file"), "");
  const std::string path = _folder.pathOf("file/log");
  const auto channel = make(path);
  EXPECT_FALSE(channel->openWithTimeout(1.0, nullptr));
  EXPECT_EQ(channel->fileHandle(), nullptr);
  EXPECT_THAT(_log.lines(),
              ElementsAre(LogLine{0, "unable to open file at path [" + path +
                                         "] with error (20): Not a directory, unable to create "
                                         "file at path [" +
                                         path + "]"}));
}

TEST_F(ZPILoggingChannelFileTest, AnEmptyPathNamesNoFile) {
  EXPECT_FALSE(make("")->openWithTimeout(1.0, nullptr));
  EXPECT_THAT(_log.texts(),
              ElementsAre("unable to open file at path [] with error (2): No such file or "
                          "directory, unable to create file at path []"));
}

TEST_F(ZPILoggingChannelFileTest, AFolderAtThePathIsTheSystemsError) {
  std::filesystem::create_directory(_path);
  _below->setOpened(false);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(_channel->openWithTimeout(1.0, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), "POSIX");
  EXPECT_EQ(error->code(), EISDIR);
  EXPECT_EQ(error->description(), "Is a directory");
  EXPECT_TRUE(error->location().starts_with(
      locationPrefix() + "ZPILoggingChannel.cpp:-[ZPILoggingChannel openWithTimeout:error:]:"))
      << error->location();
  EXPECT_THAT(_log.lines(), IsEmpty());
  EXPECT_THAT(_below->calls(), IsEmpty());
  EXPECT_EQ(_channel->fileHandle(), nullptr);
}

TEST_F(ZPILoggingChannelFileTest, OpenAlsoFailsWithoutASlot) {
  std::filesystem::create_directory(_path);
  EXPECT_FALSE(_channel->openWithTimeout(1.0, nullptr));
  EXPECT_THAT(_log.lines(), IsEmpty());
  EXPECT_THAT(_below->calls(), IsEmpty());
}

TEST_F(ZPILoggingChannelFileTest, AFailedOpenKeepsTheFileOfAnEarlierOne) {
  open();
  std::filesystem::rename(_path, _path + ".1");
  std::filesystem::create_directory(_path);
  EXPECT_FALSE(_channel->openWithTimeout(1.0, nullptr));
  write("ver");
  _channel->close(nullptr);
  EXPECT_THAT(textsOfLog(_path + ".1"), ElementsAre("pre--write: ver"));
}

TEST_F(ZPILoggingChannelFileTest, AReadOnlyFileIsTheSystemsError) {
  writeFile(_path, "old");
  ::chmod(_path.c_str(), 0444);
  const ChildResult result = runAsOrdinaryUser([this](std::string* message) {
    ZPKErrorPtr error;
    const bool opened = _channel->openWithTimeout(1.0, &error);
    if (error != nullptr) *message = error->debugDescription();
    return !opened && error != nullptr && error->domain() == "POSIX" && error->code() == EACCES &&
                   _log.lines().empty() && _below->calls().empty()
               ? 0
               : 1;
  });
  EXPECT_EQ(result.status, 0) << result.message;
  EXPECT_EQ(contents(), "old");
}

TEST_F(ZPILoggingChannelFileTest, AReadOnlyFolderIsLoggedWithoutAnError) {
  const std::string folder = _folder.pathOf("closed");
  std::filesystem::create_directory(folder);
  ::chmod(folder.c_str(), 0555);
  const ChildResult result = runAsOrdinaryUser([&](std::string* message) {
    ZPKErrorPtr error = olderError();
    const bool opened = make(folder + "/log")->openWithTimeout(1.0, &error);
    for (const std::string& text : _log.texts()) *message += text;
    return opened || error != olderError() ? 1 : 0;
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.message, "unable to open file at path [" + folder +
                                "/log] with error (2): No such file or directory, unable to "
                                "create file at path [" +
                                folder + "/log]");
}

TEST_F(ZPILoggingChannelFileTest, ALockedFolderIsLoggedWithoutAnError) {
  const std::string folder = _folder.pathOf("closed");
  std::filesystem::create_directory(folder);
  ::chmod(folder.c_str(), 0);
  const ChildResult result = runAsOrdinaryUser([&](std::string* message) {
    const bool opened = make(folder + "/log")->openWithTimeout(1.0, nullptr);
    for (const std::string& text : _log.texts()) *message += text;
    return opened ? 1 : 0;
  });
  ::chmod(folder.c_str(), 0777);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.message, "unable to open file at path [" + folder +
                                "/log] with error (13): Permission denied, unable to create file "
                                "at path [" +
                                folder + "/log]");
}

TEST_F(ZPILoggingChannelFileTest, AFIFOWithoutAReaderIsTheSystemsError) {
  ASSERT_EQ(::mkfifo(_path.c_str(), 0666), 0);
  _below->setOpened(false);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(_channel->openWithTimeout(1.0, &error));
  EXPECT_EQ(error->domain(), "POSIX");
  EXPECT_EQ(error->code(), ENXIO);
  EXPECT_THAT(_log.lines(), IsEmpty());
  EXPECT_THAT(_below->calls(), IsEmpty());
}

TEST_F(ZPILoggingChannelFileTest, TheNullDeviceIsALogLikeAnyOther) {
  const auto channel = make("/dev/null", true);
  ASSERT_TRUE(channel->openWithTimeout(1.0, nullptr));
  EXPECT_TRUE(channel->write(dataOf("ver"), nullptr));
  EXPECT_TRUE(channel->close(nullptr));
}

TEST_F(ZPILoggingChannelFileTest, ALockThatIsNeverReleasedBlocksNoCall) {
  TestClock clock;
  const SkippedWaits skipped(clock);
  open();
  const int reader = ::open(_path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(reader, LOCK_SH), 0);
  write("asynchronous");
  EXPECT_TRUE(waitFor([this] { return texts().size() == 1; }));
  _channel->setSynchronousLogging(true);
  write("synchronous");
  EXPECT_TRUE(_channel->close(nullptr));
  EXPECT_THAT(texts(), ElementsAre("pre--write: asynchronous", "pre--write: synchronous"));
  EXPECT_EQ(_log.lines().size(), 1U);
  ::close(reader);
}

// --- A file that is full.

TEST_F(ZPILoggingChannelFileTest, AFullDiskStopsTheLogButNotTheTraffic) {
  const auto channel = make("/dev/full", true);
  ASSERT_TRUE(channel->openWithTimeout(1.0, nullptr));
  EXPECT_TRUE(channel->write(dataOf("ver"), nullptr));
  _below->addRead("2.33");
  EXPECT_EQ(channel->readWithTimeout(1.0, nullptr)->view(), "2.33");
  EXPECT_TRUE(channel->close(nullptr));
  EXPECT_THAT(_log.lines(), IsEmpty());
}

TEST_F(ZPILoggingChannelFileTest, NoErrorOfAWriteStopsTrafficOrLog) {
  _channel->setSynchronousLogging(true);
  open();
  std::vector<std::string> expected;
  for (const int number : {EIO, EROFS, ENOSPC, EDQUOT, EFBIG, EPIPE, ENXIO, ENOMEM, EINVAL}) {
    SystemCalls calls;
    calls.fail("write", number);
    EXPECT_TRUE(write("lost")) << number;
    EXPECT_EQ(readOf("2.33")->view(), "2.33") << number;
    expected.emplace_back("pre---read: 2.33");
  }
  EXPECT_TRUE(_channel->close(nullptr));
  EXPECT_EQ(texts(), expected);
  EXPECT_THAT(_log.lines(), IsEmpty());
}

// Room for the first prefix and three bytes after it.
TEST_F(ZPILoggingChannelFileTest, ASizeLimitTruncatesTheLogButNotTheTraffic) {
  const ChildResult result = runInChild([this](std::string*) {
    _channel->setSynchronousLogging(true);
    if (!_channel->openWithTimeout(1.0, nullptr)) return 1;
    write("");
    const rlim_t size = std::string("\n2024-05-01 12:00:00.250 <pre--write>[").size() +
                        std::to_string(::getpid()).size() + std::string("]: ").size() + 3;
    const rlimit limit{size, size};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    for (int i = 0; i < 10; ++i) {
      if (!write("version")) return 2;
    }
    if (readOf("2.33")->view() != "2.33") return 3;
    return _channel->close(nullptr) ? 0 : 4;
  });
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver"));
}

// The same on the channel's own thread, in a separate program: a forked child may not start a
// thread. The limit also applies to the program's output, so it is high, and the log begins as a
// sparse file just below it.
TEST(ZPILoggingChannelFileDeathTest, ASizeLimitEndsNoProcessInTheBackgroundEither) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto logIntoALimitedFile = [] {
    constexpr rlim_t kLimit = 1U << 30;
    const TemporaryFolder folder;
    const std::string path = folder.pathOf("log");
    writeFile(path, "");
    std::filesystem::resize_file(path, kLimit - 200);
    const rlimit limit{kLimit, kLimit};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    const auto channel =
        ZPILoggingChannel::initWithLogFilePath(path, "pre-", ScriptedChannel::make());
    bool isGood = channel->openWithTimeout(1.0, nullptr);
    for (int i = 0; i < 1000; ++i) isGood = channel->write(dataOf("version"), nullptr) && isGood;
    isGood = channel->close(nullptr) && isGood;
    isGood = std::filesystem::file_size(path) == kLimit && isGood;
    std::filesystem::remove_all(folder.path());
    ::_exit(isGood ? 0 : 1);
  };
  EXPECT_EXIT(logIntoALimitedFile(), testing::ExitedWithCode(0), "");
}

TEST_F(ZPILoggingChannelFileTest, AMovedFileStaysTheLogUntilTheNextOpen) {
  _channel->setSynchronousLogging(true);
  open();
  write("one");
  std::filesystem::rename(_path, _path + ".1");
  write("two");
  EXPECT_THAT(textsOfLog(_path + ".1"), ElementsAre("pre--write: one", "pre--write: two"));
  EXPECT_FALSE(std::filesystem::exists(_path));
  _channel->close(nullptr);
  open();
  write("three");
  EXPECT_THAT(texts(), ElementsAre("pre--write: three"));
}

TEST_F(ZPILoggingChannelFileTest, ARemovedFileDoesNotStopTheTraffic) {
  open();
  std::filesystem::remove(_path);
  EXPECT_TRUE(write("ver"));
  EXPECT_EQ(readOf("2.33")->view(), "2.33");
  EXPECT_TRUE(_channel->close(nullptr));
  EXPECT_FALSE(std::filesystem::exists(_path));
}

// --- Several writers of one file.

void logLines(ZPKDataChannel& channel, int count) {
  for (int i = 0; i < count; ++i) {
    channel.write(dataOf(std::to_string(i) + " one\r\n" + std::to_string(i) + " two"));
  }
}

// The lines of one writer, which must be the whole chunks of logLines, in order.
void expectWholeChunks(const std::vector<LogFileLine>& lines, int count) {
  ASSERT_EQ(lines.size(), static_cast<size_t>(2 * count));
  for (size_t i = 0; i < lines.size(); ++i) {
    const std::string number = std::to_string(i / 2);
    ASSERT_EQ(lines[i].text, number + (i % 2 == 0 ? " one" : " two"));
    ASSERT_EQ(lines[i].timestamp, lines[i / 2 * 2].timestamp);
  }
}

// The two lines of a chunk must not be separated by a line of the other writer.
void expectTwoWriters(const std::string& path, int count,
                      const std::function<std::string(const LogFileLine&)>& writerOf) {
  const std::vector<LogFileLine> lines = linesOfLog(path);
  ASSERT_EQ(lines.size(), static_cast<size_t>(4 * count));
  std::map<std::string, std::vector<LogFileLine>> writers;
  for (size_t i = 0; i < lines.size(); ++i) {
    ASSERT_EQ(writerOf(lines[i]), writerOf(lines[i / 2 * 2])) << i;
    writers[writerOf(lines[i])].push_back(lines[i]);
  }
  ASSERT_EQ(writers.size(), 2U);
  for (const auto& [writer, its] : writers) expectWholeChunks(its, count);
}

TEST_F(ZPILoggingChannelFileTest, TwoChannelsOnOneFileWriteWholeChunks) {
  constexpr int kCount = 300;
  const auto other = ZPILoggingChannel::initWithLogFilePath(_path, "post", ScriptedChannel::make());
  ASSERT_TRUE(other->openWithTimeout(1.0, nullptr));
  open();
  // Short writes, so that only the lock keeps chunks whole.
  SystemCalls calls(SystemCalls::Threads::kAll);
  calls.shorten("write", 20, 0, 1000000);
  std::thread thread([&] { logLines(*other, kCount); });
  logLines(*_channel, kCount);
  thread.join();
  other->close(nullptr);
  _channel->close(nullptr);
  expectTwoWriters(_path, kCount, [](const LogFileLine& line) { return line.identifier; });
}

TEST_F(ZPILoggingChannelFileTest, TwoProcessesOnOneFileWriteWholeChunks) {
  constexpr int kCount = 300;
  const std::string started = _folder.pathOf("started");
  auto child = std::async(std::launch::async, [&] {
    return runInChild([&](std::string*) {
      _channel->setSynchronousLogging(true);
      if (!_channel->openWithTimeout(1.0, nullptr)) return 1;
      writeFile(started, "");
      logLines(*_channel, kCount);
      return _channel->close(nullptr) ? 0 : 2;
    });
  });
  // Not earlier: a lock that this process holds at the fork would be held in the child for good.
  ASSERT_TRUE(waitFor([&] { return std::filesystem::exists(started); }));
  const auto own = make(_path);
  ASSERT_TRUE(own->openWithTimeout(1.0, nullptr));
  logLines(*own, kCount);
  own->close(nullptr);
  EXPECT_EQ(child.get().status, 0);
  expectTwoWriters(_path, kCount, [](const LogFileLine& line) { return line.process; });
}

}  // namespace
