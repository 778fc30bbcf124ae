#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <semaphore>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Data Channel Internal/ZPILoggingChannel.h"
#include "Data Channel/ZPKDataChannelDecorators.h"
#include "Support/Chunks.h"
#include "Support/ErrorExpectations.h"
#include "Support/EventWait.h"
#include "Support/HeldLogWrite.h"
#include "Support/LogFile.h"
#include "Support/OpenDescriptors.h"
#include "Support/OrdinaryUser.h"
#include "Support/ProcessStatus.h"
#include "Support/ProcessThreads.h"
#include "Support/ScriptedChannel.h"
#include "Support/SimulatedDevice.h"
#include "Support/SystemCalls.h"
#include "Support/TemporaryFolder.h"
#include "Support/ThreadCalls.h"

using namespace support;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

void writeFile(const std::string& path, std::string_view contents) {
  std::ofstream(path, std::ios::binary) << contents;
}

mode_t permissionsOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

// A channel below that says when it is used and when it is destroyed.
class HookedChannel final : public ZPKDataChannel {
 public:
  ~HookedChannel() override {
    if (onDestroy) onDestroy();
  }

  bool openWithTimeout(double, ZPKErrorPtr*) override { return true; }
  bool close(ZPKErrorPtr*) override { return true; }
  bool reset(ZPKErrorPtr*) override { return true; }
  bool isOpened() const override { return true; }
  ZPKDataPtr readWithTimeout(double, ZPKErrorPtr*) override {
    if (onRead) onRead();
    return toRead;
  }
  bool write(const ZPKDataPtr&, ZPKErrorPtr*) override {
    if (onWrite) onWrite();
    return true;
  }

  std::function<void()> onRead;
  std::function<void()> onWrite;
  std::function<void()> onDestroy;
  ZPKDataPtr toRead = ZPKData::data();
};

size_t allocatedBytes() {
  const auto info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
}

class ZPILoggingChannelTest : public testing::Test {
 protected:
  std::shared_ptr<ZPILoggingChannel> make(const std::string& path, bool synchronous = false) const {
    auto channel = ZPILoggingChannel::initWithLogFilePath(path, "pre-", _below);
    channel->setSynchronousLogging(synchronous);
    return channel;
  }
  void open() {
    _below->setOpened(false);
    ASSERT_TRUE(_channel->openWithTimeout(1.0, nullptr));
  }
  ZPKDataPtr readOf(std::string_view bytes) {
    _below->addRead(bytes);
    return _channel->readWithTimeout(1.0, nullptr);
  }
  bool write(std::string_view bytes) { return _channel->write(dataOf(bytes), nullptr); }
  std::string contents() const { return contentsOfFile(_path); }
  std::vector<std::string> texts() const { return textsOfLog(_path); }

  LogCapture _log;
  const TemporaryFolder _folder;
  const std::string _path = _folder.pathOf("log");
  const std::shared_ptr<ScriptedChannel> _below = ScriptedChannel::make();
  std::shared_ptr<ZPILoggingChannel> _channel = make(_path);
};

// --- What is logged.

TEST_F(ZPILoggingChannelTest, ReadsAndWritesAreLoggedWithTheirDirection) {
  open();
  EXPECT_TRUE(write("ver"));
  EXPECT_EQ(readOf("2.33")->view(), "2.33");
  EXPECT_TRUE(_channel->close(nullptr));
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver", "pre---read: 2.33"));
  for (const LogFileLine& line : linesOfLog(_path)) {
    EXPECT_EQ(line.process, std::to_string(::getpid()));
  }
}

TEST_F(ZPILoggingChannelTest, AChunkHasThePrefixAtEveryLineAndAtItsEnd) {
  open();
  write("A\r\nB\rC\n");
  _channel->close(nullptr);
  EXPECT_THAT(texts(),
              ElementsAre("pre--write: A", "pre--write: B", "pre--write: C", "pre--write: "));
  EXPECT_EQ(contents().front(), '\n');
  EXPECT_EQ(contents().back(), ' ');
  std::set<std::string> timestamps;
  for (const LogFileLine& line : linesOfLog(_path)) timestamps.insert(line.timestamp);
  EXPECT_EQ(timestamps.size(), 1U);
}

TEST_F(ZPILoggingChannelTest, ALineThatComesInTwoPiecesShowsAsTwoLines) {
  open();
  readOf("2.");
  readOf("33\n");
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre---read: 2.", "pre---read: 33", "pre---read: "));
}

TEST_F(ZPILoggingChannelTest, BytesThatAreNoTextShowInHexadecimalAndPassUnchanged) {
  open();
  const std::string bytes("\xFF\0%@ %n\xFE", 8);
  EXPECT_EQ(readOf(bytes)->view(), bytes);
  write("%s\xFF");
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre---read: <ff00>%@ %n<fe>", "pre--write: %s<ff>"));
  EXPECT_THAT(_below->writes(), ElementsAre("%s\xFF"));
}

TEST_F(ZPILoggingChannelTest, ATimedOutReadLeavesNoTrace) {
  open();
  const ZPKDataPtr data = readOf("");
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->length(), 0U);
  _channel->close(nullptr);
  EXPECT_EQ(contents(), "");
}

TEST_F(ZPILoggingChannelTest, EmptyAndNullWritesLeaveNoTraceAndReachTheChannelBelow) {
  open();
  EXPECT_TRUE(_channel->write(ZPKData::data(), nullptr));
  EXPECT_TRUE(_channel->write(nullptr, nullptr));
  _channel->close(nullptr);
  EXPECT_EQ(contents(), "");
  EXPECT_THAT(_below->writes(), ElementsAre("", std::nullopt));
}

TEST_F(ZPILoggingChannelTest, AFailedReadLeavesNoTrace) {
  open();
  const ZPKErrorPtr fromBelow = ZPKError::init("below", 5, {});
  _below->addFailedRead(fromBelow);
  ZPKErrorPtr error = olderError();
  EXPECT_EQ(_channel->readWithTimeout(0.5, &error), nullptr);
  EXPECT_EQ(error, fromBelow);
  EXPECT_THAT(_below->readTimeouts(), ElementsAre(0.5));
  _channel->close(nullptr);
  EXPECT_EQ(contents(), "");
}

TEST_F(ZPILoggingChannelTest, AFailedWriteHasBeenLogged) {
  open();
  const ZPKErrorPtr fromBelow = ZPKError::init("below", 5, {});
  _below->setWriteResult(false, fromBelow);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(_channel->write(dataOf("ver"), &error));
  EXPECT_EQ(error, fromBelow);
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver"));
}

TEST_F(ZPILoggingChannelTest, TheLineComesBeforeTheDataLeavesAndAfterItCame) {
  const auto below = std::make_shared<HookedChannel>();
  const auto channel = ZPILoggingChannel::initWithLogFilePath(_path, "pre-", below);
  channel->setSynchronousLogging(true);
  ASSERT_TRUE(channel->openWithTimeout(1.0, nullptr));
  std::vector<std::string> atWrite;
  std::vector<std::string> atRead;
  below->onWrite = [&] { atWrite = texts(); };
  below->onRead = [&] { atRead = texts(); };
  below->toRead = dataOf("2.33");
  channel->write(dataOf("ver"), nullptr);
  channel->readWithTimeout(1.0, nullptr);
  EXPECT_THAT(atWrite, ElementsAre("pre--write: ver"));
  EXPECT_THAT(atRead, ElementsAre("pre--write: ver"));
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver", "pre---read: 2.33"));
}

TEST_F(ZPILoggingChannelTest, TheIdentifierIsTakenAsItIs) {
  const auto channel = ZPILoggingChannel::initWithLogFilePath(_path, "%@ %s", _below);
  ASSERT_TRUE(channel->openWithTimeout(1.0, nullptr));
  channel->write(dataOf("ver"), nullptr);
  channel->logData(dataOf("mem"), "");
  channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("%@ %s-write: ver", ": mem"));
}

// --- Synchronous and not.

TEST_F(ZPILoggingChannelTest, LoggingIsAsynchronousUntilToldOtherwise) {
  const auto channel = ZPILoggingChannel::initWithLogFilePath(_path, "pre-", _below);
  EXPECT_FALSE(channel->synchronousLogging());
  channel->setSynchronousLogging(true);
  EXPECT_TRUE(channel->synchronousLogging());
}

TEST_F(ZPILoggingChannelTest, SynchronousLinesAreInTheFileWhenTheCallReturns) {
  _channel->setSynchronousLogging(true);
  open();
  write("ver");
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver"));
  readOf("2.33");
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver", "pre---read: 2.33"));
}

TEST_F(ZPILoggingChannelTest, SynchronousLoggingWaitsForTheFile) {
  _channel->setSynchronousLogging(true);
  open();
  HeldLogWrite held;
  auto writing = std::async(std::launch::async, [this] { write("ver"); });
  EXPECT_TRUE(held.waitUntilHeld());
  EXPECT_THAT(_below->writes(), IsEmpty());
  held.release();
  writing.get();
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver"));
}

TEST_F(ZPILoggingChannelTest, AsynchronousLoggingKeepsNobodyWaiting) {
  open();
  HeldLogWrite held;
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(write("ver"));
  EXPECT_EQ(readOf("2.33")->view(), "2.33");
  EXPECT_EQ(contents(), "");
  held.release();
  _channel->close(nullptr);
  EXPECT_EQ(texts().size(), 101U);
}

TEST_F(ZPILoggingChannelTest, CloseHasEverythingInTheFile) {
  open();
  std::vector<std::string> expected;
  for (int i = 0; i < 2000; ++i) {
    write(std::to_string(i));
    expected.push_back("pre--write: " + std::to_string(i));
  }
  _channel->close(nullptr);
  EXPECT_EQ(texts(), expected);
}

TEST_F(ZPILoggingChannelTest, ChunksKeepTheirOrderWhenTheModeChanges) {
  open();
  std::vector<std::string> expected;
  for (int i = 0; i < 200; ++i) {
    _channel->setSynchronousLogging(i % 3 == 0);
    write(std::to_string(i));
    expected.push_back("pre--write: " + std::to_string(i));
    if (_channel->synchronousLogging()) {
      ASSERT_EQ(texts(), expected);
    }
  }
  _channel->close(nullptr);
  EXPECT_EQ(texts(), expected);
}

TEST_F(ZPILoggingChannelTest, ChunksThatWaitTogetherAreWrittenTogether) {
  open();
  HeldLogWrite held;
  write("first");
  EXPECT_TRUE(held.waitUntilHeld());
  for (int i = 0; i < 16; ++i) write("more");
  held.release();
  _channel->close(nullptr);
  EXPECT_EQ(held.calls.count("writev"), 2U);
  EXPECT_EQ(texts().size(), 17U);
}

// --- A reader and a writer at the same time.

TEST_F(ZPILoggingChannelTest, AReaderAndAWriterCanRunAtTheSameTime) {
  constexpr int kCount = 500;
  open();
  for (int i = 0; i < kCount; ++i) _below->addRead("in " + std::to_string(i));
  std::thread writer([this] {
    for (int i = 0; i < kCount; ++i) {
      write("out " + std::to_string(i));
      _channel->setSynchronousLogging(i % 100 == 99);
    }
  });
  for (int i = 0; i < kCount; ++i) {
    EXPECT_NE(_channel->readWithTimeout(1.0, nullptr), nullptr);
    EXPECT_NE(_channel->fileHandle(), nullptr);
  }
  writer.join();
  _channel->close(nullptr);
  int in = 0;
  int out = 0;
  for (const std::string& text : texts()) {
    if (text == "pre---read: in " + std::to_string(in)) {
      ++in;
    } else {
      EXPECT_EQ(text, "pre--write: out " + std::to_string(out));
      ++out;
    }
  }
  EXPECT_EQ(in, kCount);
  EXPECT_EQ(out, kCount);
}

// --- Open and close.

TEST_F(ZPILoggingChannelTest, NothingIsOpenedBeforeOpen) {
  EXPECT_EQ(_channel->fileHandle(), nullptr);
  EXPECT_FALSE(std::filesystem::exists(_path));
  EXPECT_THAT(_below->calls(), IsEmpty());
}

TEST_F(ZPILoggingChannelTest, OpenMakesTheFileAndThenOpensTheChannelBelow) {
  _below->setOpened(false);
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(_channel->openWithTimeout(2.5, &error));
  EXPECT_EQ(error, olderError());
  EXPECT_TRUE(std::filesystem::exists(_path));
  EXPECT_NE(_channel->fileHandle(), nullptr);
  EXPECT_THAT(_below->openTimeouts(), ElementsAre(2.5));
  EXPECT_TRUE(_channel->isOpened());
  EXPECT_THAT(_log.lines(), IsEmpty());
}

TEST_F(ZPILoggingChannelTest, ANewFileHasThePermissions0666LessTheUmask) {
  const mode_t before = ::umask(027);
  open();
  ::umask(before);
  EXPECT_EQ(permissionsOf(_path), mode_t{0640});
}

TEST_F(ZPILoggingChannelTest, AnExistingFileGrowsAtItsEndAndKeepsItsPermissions) {
  writeFile(_path, "\n2024-01-01 00:00:00.000 <old>[1]: old");
  ::chmod(_path.c_str(), 0600);
  open();
  write("ver");
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("old: old", "pre--write: ver"));
  EXPECT_EQ(permissionsOf(_path), mode_t{0600});
}

TEST_F(ZPILoggingChannelTest, AFileThroughALinkIsTheOneThatItNames) {
  std::filesystem::create_symlink(_folder.pathOf("target"), _path);
  open();
  write("ver");
  _channel->close(nullptr);
  EXPECT_THAT(textsOfLog(_folder.pathOf("target")), ElementsAre("pre--write: ver"));
}

TEST_F(ZPILoggingChannelTest, OneFileCollectsSeveralOpenTimes) {
  for (const char* text : {"one", "two"}) {
    open();
    write(text);
    _channel->close(nullptr);
  }
  EXPECT_THAT(texts(), ElementsAre("pre--write: one", "pre--write: two"));
}

TEST_F(ZPILoggingChannelTest, IfTheChannelBelowDoesNotOpenTheFileStaysOpen) {
  const ZPKErrorPtr fromBelow = ZPKError::init("below", 4, {});
  _below->setOpened(false);
  _below->setOpenResult(false, fromBelow);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(_channel->openWithTimeout(1.0, &error));
  EXPECT_EQ(error, fromBelow);
  EXPECT_NE(_channel->fileHandle(), nullptr);
  EXPECT_FALSE(_channel->isOpened());
  write("ver");
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver"));
}

TEST_F(ZPILoggingChannelTest, ASecondOpenReplacesTheFileAndLeavesTheRestToTheChannelBelow) {
  const std::set<int> before = openDescriptors();
  open();
  const std::weak_ptr<ZPILogFileHandle> first = _channel->fileHandle();
  write("one");
  std::filesystem::rename(_path, _path + ".1");
  const ZPKErrorPtr fromBelow = ZPKError::init("below", 1, {});
  _below->setOpenResult(false, fromBelow);
  ZPKErrorPtr error;
  EXPECT_FALSE(_channel->openWithTimeout(1.0, &error));
  EXPECT_EQ(error, fromBelow);
  write("two");
  EXPECT_TRUE(_channel->close(nullptr));
  EXPECT_TRUE(first.expired());
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_THAT(textsOfLog(_path + ".1"), ElementsAre("pre--write: one"));
  EXPECT_THAT(texts(), ElementsAre("pre--write: two"));
}

TEST_F(ZPILoggingChannelTest, CloseClosesTheFileAndThenTheChannelBelow) {
  const std::set<int> before = openDescriptors();
  open();
  EXPECT_EQ(openDescriptors().size(), before.size() + 1);
  ZPKErrorPtr error = olderError();
  EXPECT_TRUE(_channel->close(&error));
  EXPECT_EQ(error, olderError());
  EXPECT_EQ(_channel->fileHandle(), nullptr);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_THAT(_below->calls(), ElementsAre("open", "close"));
  EXPECT_FALSE(_channel->isOpened());
}

TEST_F(ZPILoggingChannelTest, TheFileIsClosedEvenIfTheCloseBelowFails) {
  open();
  write("ver");
  const ZPKErrorPtr fromBelow = ZPKError::init("below", 2, {});
  _below->setCloseResult(false, fromBelow);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(_channel->close(&error));
  EXPECT_EQ(error, fromBelow);
  EXPECT_EQ(_channel->fileHandle(), nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver"));
}

TEST_F(ZPILoggingChannelTest, CloseOfAClosedChannelIsLeftToTheChannelBelow) {
  EXPECT_TRUE(_channel->close(nullptr));
  EXPECT_THAT(_below->calls(), ElementsAre("close"));
}

TEST_F(ZPILoggingChannelTest, WithoutAnOpenFileNothingIsLoggedAndNothingFails) {
  EXPECT_TRUE(write("before"));
  EXPECT_EQ(readOf("before")->view(), "before");
  open();
  write("while");
  _channel->close(nullptr);
  _channel->logData(dataOf("after"), "id");
  _channel->setSynchronousLogging(true);
  EXPECT_TRUE(write("after"));
  EXPECT_THAT(texts(), ElementsAre("pre--write: while"));
  EXPECT_THAT(_log.lines(), IsEmpty());
}

TEST_F(ZPILoggingChannelTest, ResetIsThatOfTheChannelBelowAndLeavesTheFileAlone) {
  open();
  write("ver");
  EXPECT_TRUE(_channel->reset(nullptr));
  const ZPKErrorPtr fromBelow = ZPKError::init("below", 1, {});
  _below->setResetResult(false, fromBelow);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(_channel->reset(&error));
  EXPECT_EQ(error, fromBelow);
  EXPECT_NE(_channel->fileHandle(), nullptr);
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver"));
}

TEST_F(ZPILoggingChannelTest, TheFileHandleCanBeReadAndReplaced) {
  open();
  const ZPILogFileHandlePtr handle = _channel->fileHandle();
  _channel->setFileHandle(nullptr);
  EXPECT_EQ(_channel->fileHandle(), nullptr);
  _channel->setSynchronousLogging(true);
  write("lost");
  _channel->setFileHandle(handle);
  write("kept");
  EXPECT_THAT(texts(), ElementsAre("pre--write: kept"));
}

// --- A file that cannot be had.

TEST_F(ZPILoggingChannelTest, InAMissingFolderOpenFailsWithALineAndNoError) {
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

TEST_F(ZPILoggingChannelTest, TheLineTellsWhyTheFileWasNotFound) {
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

TEST_F(ZPILoggingChannelTest, AnEmptyPathNamesNoFile) {
  EXPECT_FALSE(make("")->openWithTimeout(1.0, nullptr));
  EXPECT_THAT(_log.texts(),
              ElementsAre("unable to open file at path [] with error (2): No such file or "
                          "directory, unable to create file at path []"));
}

TEST_F(ZPILoggingChannelTest, AFolderInPlaceOfTheFileIsTheSystemsError) {
  std::filesystem::create_directory(_path);
  _below->setOpened(false);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(_channel->openWithTimeout(1.0, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), "POSIX");
  EXPECT_EQ(error->code(), EISDIR);
  EXPECT_EQ(error->description(), "Is a directory");
  EXPECT_TRUE(error->location().starts_with(
      "[Zephal-2.33.3.1] ZPILoggingChannel.cpp:-[ZPILoggingChannel openWithTimeout:error:]:"))
      << error->location();
  EXPECT_THAT(_log.lines(), IsEmpty());
  EXPECT_THAT(_below->calls(), IsEmpty());
  EXPECT_EQ(_channel->fileHandle(), nullptr);
}

TEST_F(ZPILoggingChannelTest, WithoutASlotAFileThatCannotBeOpenedIsAFailureAllTheSame) {
  std::filesystem::create_directory(_path);
  EXPECT_FALSE(_channel->openWithTimeout(1.0, nullptr));
  EXPECT_THAT(_log.lines(), IsEmpty());
  EXPECT_THAT(_below->calls(), IsEmpty());
}

TEST_F(ZPILoggingChannelTest, AFailedOpenKeepsTheFileOfAnEarlierOne) {
  open();
  std::filesystem::rename(_path, _path + ".1");
  std::filesystem::create_directory(_path);
  EXPECT_FALSE(_channel->openWithTimeout(1.0, nullptr));
  write("ver");
  _channel->close(nullptr);
  EXPECT_THAT(textsOfLog(_path + ".1"), ElementsAre("pre--write: ver"));
}

TEST_F(ZPILoggingChannelTest, AFileThatTheUserMayNotWriteIsTheSystemsError) {
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

TEST_F(ZPILoggingChannelTest, AFolderThatTheUserMayNotWriteIsALineAndNoError) {
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

TEST_F(ZPILoggingChannelTest, AFolderThatTheUserMayNotEnterIsALineAndNoError) {
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

TEST_F(ZPILoggingChannelTest, AFIFOWithoutAReaderIsTheSystemsError) {
  ASSERT_EQ(::mkfifo(_path.c_str(), 0666), 0);
  _below->setOpened(false);
  ZPKErrorPtr error = olderError();
  EXPECT_FALSE(_channel->openWithTimeout(1.0, &error));
  EXPECT_EQ(error->domain(), "POSIX");
  EXPECT_EQ(error->code(), ENXIO);
  EXPECT_THAT(_log.lines(), IsEmpty());
  EXPECT_THAT(_below->calls(), IsEmpty());
}

TEST_F(ZPILoggingChannelTest, TheNullDeviceIsALogLikeAnyOther) {
  const auto channel = make("/dev/null", true);
  ASSERT_TRUE(channel->openWithTimeout(1.0, nullptr));
  EXPECT_TRUE(channel->write(dataOf("ver"), nullptr));
  EXPECT_TRUE(channel->close(nullptr));
}

TEST_F(ZPILoggingChannelTest, WhoHoldsTheLockForGoodDoesNotHoldAnyCall) {
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

// --- A file that takes no more.

TEST_F(ZPILoggingChannelTest, AFullDiskStopsTheLogAndNotTheTraffic) {
  const auto channel = make("/dev/full", true);
  ASSERT_TRUE(channel->openWithTimeout(1.0, nullptr));
  EXPECT_TRUE(channel->write(dataOf("ver"), nullptr));
  _below->addRead("2.33");
  EXPECT_EQ(channel->readWithTimeout(1.0, nullptr)->view(), "2.33");
  EXPECT_TRUE(channel->close(nullptr));
  EXPECT_THAT(_log.lines(), IsEmpty());
}

// Room for the first prefix and three bytes behind it.
TEST_F(ZPILoggingChannelTest, AFileAtItsSizeLimitCutsTheLogAndNotTheTraffic) {
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

// The same on the channel's own thread, in a program of its own: a forked one may start no thread.
// The limit holds for what the program prints too, so it is far off, and the log, full of nothing,
// is just below it.
TEST(ZPILoggingChannelDeathTest, AFileAtItsSizeLimitEndsNoProcessFromTheBackgroundEither) {
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

TEST_F(ZPILoggingChannelTest, AFileThatIsMovedStaysTheLogUntilTheNextOpen) {
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

TEST_F(ZPILoggingChannelTest, AFileThatIsRemovedStopsNoTraffic) {
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

// The lines of one writer, which must be whole chunks of logLines in their order.
void expectWholeChunks(const std::vector<LogFileLine>& lines, int count) {
  ASSERT_EQ(lines.size(), static_cast<size_t>(2 * count));
  for (size_t i = 0; i < lines.size(); ++i) {
    const std::string number = std::to_string(i / 2);
    ASSERT_EQ(lines[i].text, number + (i % 2 == 0 ? " one" : " two"));
    ASSERT_EQ(lines[i].timestamp, lines[i / 2 * 2].timestamp);
  }
}

// Nobody's line may stand between the two lines of another's chunk.
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

TEST_F(ZPILoggingChannelTest, TwoChannelsOnOneFileGiveWholeChunks) {
  constexpr int kCount = 300;
  const auto other = ZPILoggingChannel::initWithLogFilePath(_path, "post", ScriptedChannel::make());
  ASSERT_TRUE(other->openWithTimeout(1.0, nullptr));
  open();
  // Short writes, so that only the lock keeps chunks whole.
  SystemCalls calls(SystemCalls::Threads::kAll);
  calls.shorten("writev", 20, 0, 1000000);
  std::thread thread([&] { logLines(*other, kCount); });
  logLines(*_channel, kCount);
  thread.join();
  other->close(nullptr);
  _channel->close(nullptr);
  expectTwoWriters(_path, kCount, [](const LogFileLine& line) { return line.identifier; });
}

TEST_F(ZPILoggingChannelTest, TwoProcessesOnOneFileGiveWholeChunks) {
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

// --- The end of a channel.

ZPKDataChannelPtr channelThatTellsItsEnd(std::promise<std::thread::id>* destroyed) {
  auto channel = std::make_shared<HookedChannel>();
  channel->onDestroy = [destroyed] { destroyed->set_value(std::this_thread::get_id()); };
  return channel;
}

TEST_F(ZPILoggingChannelTest, ATaskCanBeTheLastToHoldItsChannel) {
  const std::set<int> before = openDescriptors();
  std::promise<std::thread::id> destroyed;
  ZPKDataChannelPtr channel =
      createLoggingChannel(channelThatTellsItsEnd(&destroyed), _path, "pre-", false);
  ASSERT_TRUE(channel->openWithTimeout(1.0));
  HeldLogWrite held;
  channel->write(dataOf("first"));
  EXPECT_TRUE(held.waitUntilHeld());
  channel->write(dataOf("second"));
  channel.reset();
  auto end = destroyed.get_future();
  EXPECT_EQ(end.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  held.release();
  EXPECT_NE(end.get(), std::this_thread::get_id());
  EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 0; }));
  // The task's thread wrote the chunk behind the first one too, as it destroyed the channel.
  EXPECT_THAT(texts(), ElementsAre("pre--write: first", "pre--write: second"));
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ZPILoggingChannelTest, ADroppedChannelClosesItsFileAndNotTheChannelBelow) {
  const std::set<int> before = openDescriptors();
  _channel->setSynchronousLogging(true);
  open();
  write("ver");
  _channel.reset();
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_TRUE(_below->isOpened());
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver"));
}

TEST_F(ZPILoggingChannelTest, ChannelsCanBeDroppedInTheMiddleOfTheirTraffic) {
  for (int i = 0; i < 200; ++i) {
    std::promise<std::thread::id> destroyed;
    ZPKDataChannelPtr channel =
        createLoggingChannel(channelThatTellsItsEnd(&destroyed), _path, "pre-", false);
    ASSERT_TRUE(channel->openWithTimeout(1.0));
    for (int j = 0; j < 3; ++j) channel->write(dataOf("version"));
    channel.reset();
    ASSERT_EQ(destroyed.get_future().wait_for(kPatience), std::future_status::ready);
  }
  // Whoever let go of it last has written what was pending.
  EXPECT_EQ(texts(), std::vector<std::string>(600, "pre--write: version"));
}

// --- Threads.

TEST_F(ZPILoggingChannelTest, AnOpenFileHasOneThreadNamedByIt) {
  EXPECT_EQ(threadsNamed(_path), 0U);
  for (int i = 0; i < 2; ++i) {
    open();
    EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 1; }));
  }
  for (size_t i = 1; i <= 2; ++i) {
    write("ver");
    EXPECT_TRUE(waitFor([&] { return texts().size() == i; }));
    EXPECT_EQ(threadsNamed(_path), 1U);
  }
  _channel->close(nullptr);
  EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 0; }));
}

TEST_F(ZPILoggingChannelTest, TheThreadOfADroppedChannelEnds) {
  open();
  _channel.reset();
  EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 0; }));
}

TEST_F(ZPILoggingChannelTest, AFileThatCannotBeOpenedHasNoThread) {
  EXPECT_FALSE(make(_folder.path())->openWithTimeout(1.0, nullptr));
  EXPECT_EQ(threadsNamed(_folder.path()), 0U);
}

TEST_F(ZPILoggingChannelTest, SynchronousLoggingNeedsNoThreadUntilItIsTurnedOff) {
  _channel->setSynchronousLogging(true);
  open();
  write("ver");
  EXPECT_EQ(threadsNamed(_path), 0U);
  _channel->setSynchronousLogging(false);
  EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 1; }));
  _channel->close(nullptr);
  _channel->setSynchronousLogging(false);
  EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 0; }));
}

TEST_F(ZPILoggingChannelTest, WithoutAThreadTheTrafficWritesAndStartsNone) {
  {
    const RefusedThreads refused;
    open();
  }
  write("ver");
  EXPECT_EQ(readOf("2.33")->view(), "2.33");
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver", "pre---read: 2.33"));
  EXPECT_EQ(threadsNamed(_path), 0U);
  open();
  EXPECT_TRUE(waitFor([this] { return threadsNamed(_path) == 1; }));
  EXPECT_TRUE(_channel->close(nullptr));
}

// Writes as fast as it can until it is told to stop.
class BusyWriter {
 public:
  explicit BusyWriter(std::shared_ptr<ZPILoggingChannel> channel, bool hasThreads = true)
      : _channel(std::move(channel)), _thread([this, hasThreads] { write(hasThreads); }) {
    EXPECT_TRUE(waitFor([this] { return _writes > 100; }));
  }
  BusyWriter(const BusyWriter&) = delete;
  BusyWriter& operator=(const BusyWriter&) = delete;
  ~BusyWriter() { stop(); }

  // Returns how many writes it made.
  size_t stop() {
    _isDone = true;
    if (_thread.joinable()) _thread.join();
    return _writes;
  }

 private:
  void write(bool hasThreads) {
    std::optional<RefusedThreads> refused;
    if (!hasThreads) refused.emplace();
    while (!_isDone) {
      _channel->logData(dataOf(std::to_string(_writes)), "busy");
      ++_writes;
    }
  }

  const std::shared_ptr<ZPILoggingChannel> _channel;
  std::atomic<bool> _isDone{false};
  std::atomic<size_t> _writes{0};
  std::thread _thread;
};

TEST_F(ZPILoggingChannelTest, WithoutAThreadWritersAndAnotherThreadsCloseComeBack) {
  for (int i = 0; i < 20; ++i) {
    const RefusedThreads refused;
    open();
    BusyWriter writer(_channel, false);
    ASSERT_TRUE(_channel->close(nullptr));
    writer.stop();
  }
}

// Each write of this thread makes the other one bring a chunk.
TEST_F(ZPILoggingChannelTest, WithoutAThreadACallWritesOnceWhileOthersKeepWriting) {
  const RefusedThreads refused;
  open();
  std::counting_semaphore<> wanted(0);
  std::atomic<bool> isDone{false};
  std::thread other([&] {
    const RefusedThreads refusedToo;
    for (wanted.acquire(); !isDone; wanted.acquire()) _channel->logData(dataOf("other"), "other");
  });
  for (int i = 0; i < 20; ++i) {
    SystemCalls calls;
    calls.before(
        "writev", [&] { wanted.release(); }, 0, 100);
    _channel->logData(dataOf("own"), "own");
    EXPECT_LE(calls.count("writev"), 1U);
  }
  isDone = true;
  wanted.release();
  other.join();
  _channel->close(nullptr);
}

// Every write brings the next chunk, so that the traffic never pauses by itself.
TEST_F(ZPILoggingChannelTest, AnOpenComesInBetweenBusyTraffic) {
  open();
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  std::atomic<bool> isBusy{true};
  SystemCalls calls(SystemCalls::Threads::kAll);
  const auto bringAnother = [&] {
    if (std::chrono::steady_clock::now() > end) isBusy = false;
    if (isBusy) _channel->logData(dataOf("more"), "busy");
  };
  calls.before("writev", bringAnother, 0, SIZE_MAX);
  write("first");
  open();
  EXPECT_TRUE(isBusy.exchange(false));
  _channel->close(nullptr);
}

// The shortest of many delays, since each of them may be long on a busy machine.
TEST_F(ZPILoggingChannelTest, TheFirstChunkWaitsForNoOther) {
  using Clock = std::chrono::steady_clock;
  Clock::duration shortest = Clock::duration::max();
  for (int i = 0; i < 50; ++i) {
    open();
    std::promise<Clock::time_point> written;
    SystemCalls calls(SystemCalls::Threads::kAll);
    calls.before("writev", [&] { written.set_value(Clock::now()); });
    const auto start = Clock::now();
    write("ver");
    auto time = written.get_future();
    ASSERT_EQ(time.wait_for(kPatience), std::future_status::ready);
    shortest = std::min(shortest, time.get() - start);
    _channel->close(nullptr);
  }
  EXPECT_LT(shortest, std::chrono::milliseconds(1));
}

TEST_F(ZPILoggingChannelTest, APauseGivesTheRoomOfBusyTrafficBack) {
  constexpr size_t kChunks = 64;
  const std::string bytes(65536, 'x');
  open();
  const size_t before = allocatedBytes();
  HeldLogWrite held;
  for (size_t i = 0; i < kChunks; ++i) readOf(bytes);
  held.release();
  EXPECT_TRUE(waitFor([&] { return std::filesystem::file_size(_path) > kChunks * bytes.size(); }));
  if (isMemoryComparable()) {
    EXPECT_TRUE(waitFor([&] { return allocatedBytes() < before + bytes.size(); }));
  }
  _channel->close(nullptr);
}

TEST_F(ZPILoggingChannelTest, NoChunkWaitsForAnotherWhileTheModeChangesOnAnotherThread) {
  constexpr size_t kRounds = 2000;
  open();
  std::atomic<bool> isDone{false};
  std::thread changer([&] {
    while (!isDone) _channel->setSynchronousLogging(!_channel->synchronousLogging());
  });
  for (size_t i = 0; i < kRounds; ++i) write("x");
  isDone = true;
  changer.join();
  _channel->setSynchronousLogging(false);
  write("last");
  // Nobody closes: the chunks get there by themselves.
  EXPECT_TRUE(waitFor([this] { return texts().size() == kRounds + 1; }));
  EXPECT_EQ(texts().back(), "pre--write: last");
  _channel->close(nullptr);
}

// --- A process that is forked has none of the threads.

class ZPILoggingChannelForkTest : public ZPILoggingChannelTest {
 protected:
  // The parent's thread is in the middle of a write when the child is forked, with a chunk behind
  // it.
  ChildResult forkDuringAWrite(const ChildFunction& child) {
    open();
    HeldLogWrite held;
    write("first");
    EXPECT_TRUE(held.waitUntilHeld());
    write("second");
    ChildResult result = runInChild(child);
    held.release();
    return result;
  }
};

TEST_F(ZPILoggingChannelForkTest, AChildCanWriteAndClose) {
  const ChildResult result = forkDuringAWrite([this](std::string*) {
    if (!write("child") || readOf("2.33")->view() != "2.33") return 1;
    return _channel->close(nullptr) && _channel->fileHandle() == nullptr ? 0 : 2;
  });
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre--write: child", "pre---read: 2.33", "pre--write: first",
                                   "pre--write: second"));
  EXPECT_NE(linesOfLog(_path).front().process, std::to_string(::getpid()));
}

TEST_F(ZPILoggingChannelForkTest, AChildsCallsReturnWithTheirLinesInTheFile) {
  const ChildResult result = forkDuringAWrite([this](std::string*) {
    write("asynchronous");
    if (texts().size() != 1) return 1;
    _channel->setSynchronousLogging(true);
    write("synchronous");
    return texts().size() == 2 ? 0 : 2;
  });
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
  _channel->close(nullptr);
  EXPECT_EQ(texts().size(), 4U);
}

TEST_F(ZPILoggingChannelForkTest, WhatTheParentHasPendingIsNotTheChilds) {
  const ChildResult result =
      forkDuringAWrite([this](std::string*) { return _channel->close(nullptr) ? 0 : 1; });
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
  EXPECT_TRUE(write("third"));
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre--write: first", "pre--write: second", "pre--write: third"));
}

TEST_F(ZPILoggingChannelForkTest, AChildCanDropTheChannel) {
  open();
  write("ver");
  EXPECT_TRUE(waitFor([this] { return texts().size() == 1; }));
  const ChildResult unused = runInChild([this](std::string*) {
    _channel.reset();
    return 0;
  });
  EXPECT_EQ(unused.status, 0) << "signal " << unused.signal;
  const ChildResult used = runInChild([this](std::string*) {
    write("child");
    _channel.reset();
    return 0;
  });
  EXPECT_EQ(used.status, 0) << "signal " << used.signal;
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre--write: ver", "pre--write: child"));
}

TEST_F(ZPILoggingChannelForkTest, ADroppedChannelClosesItsFileInAChildToo) {
  const std::set<int> before = openDescriptors();
  open();
  write("ver");
  EXPECT_TRUE(waitFor([this] { return texts().size() == 1; }));
  const std::set<int> withFile = openDescriptors();
  const ChildResult result = runInChild([&](std::string*) {
    const size_t count = openDescriptors().size();
    write("child");
    _channel.reset();
    return openDescriptors().size() + (withFile.size() - before.size()) == count ? 0 : 1;
  });
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
}

TEST_F(ZPILoggingChannelForkTest, AChildCanOpenTheLogAnew) {
  open();
  write("parent");
  EXPECT_TRUE(waitFor([this] { return texts().size() == 1; }));
  const ChildResult result = runInChild([this](std::string*) {
    const RefusedThreads refused;  // see runInChild
    for (const char* text : {"one", "two"}) {
      _below->setOpened(false);
      if (!_channel->openWithTimeout(1.0, nullptr) || !write(text)) return 1;
      if (!_channel->close(nullptr)) return 2;
    }
    return 0;
  });
  EXPECT_EQ(result.status, 0) << "signal " << result.signal;
  _channel->close(nullptr);
  EXPECT_THAT(texts(), ElementsAre("pre--write: parent", "pre--write: one", "pre--write: two"));
}

// The numbers that the lines of one identifier end in; quick for a long log.
std::vector<size_t> numbersOfLog(const std::string& path, const std::string& identifier) {
  std::vector<size_t> numbers;
  std::istringstream lines(contentsOfFile(path));
  for (std::string line; std::getline(lines, line);) {
    if (line.find(" <" + identifier + ">[") == std::string::npos) continue;
    numbers.push_back(std::stoul(line.substr(line.find("]: ") + 3)));
  }
  return numbers;
}

// The fork meets the other threads anywhere, with any lock of the channel held.
TEST_F(ZPILoggingChannelForkTest, ForksAmidTrafficNeitherHangNorWriteTwice) {
  constexpr size_t kForks = 50;
  open();
  BusyWriter writer(_channel);
  for (size_t i = 0; i < kForks; ++i) {
    const ChildResult result = runInChild([&](std::string*) {
      _channel->logData(dataOf(std::to_string(i)), "child");
      return _channel->close(nullptr) ? 0 : 1;
    });
    ASSERT_EQ(result.status, 0) << "signal " << result.signal;
  }
  const size_t writes = writer.stop();
  _channel->close(nullptr);
  for (const auto& [identifier, count] : {std::pair("busy", writes), std::pair("child", kForks)}) {
    std::vector<size_t> expected(count);
    std::iota(expected.begin(), expected.end(), size_t{0});
    EXPECT_TRUE(numbersOfLog(_path, identifier) == expected) << identifier;
  }
}

// --- Over real lines.

class ZPILoggingChannelDeviceTest : public testing::TestWithParam<SimulatedDevice::Kind> {};

TEST_P(ZPILoggingChannelDeviceTest, TheConversationIsInTheFile) {
  const TemporaryFolder folder;
  SimulatedDevice device(GetParam(), {.responses = {{"version", "2.33\r\n"}}});
  const ZPKDataChannelPtr channel = createLoggingChannel(
      createBaseChannelWithTransport(device.url()), folder.pathOf("log"), "pre-", false);
  ASSERT_TRUE(channel->openWithTimeout(1.0));
  ASSERT_TRUE(channel->write(dataOf("version\n")));
  std::string answer;
  EXPECT_TRUE(waitFor([&] {
    const ZPKDataPtr data = channel->readWithTimeout(0.1);
    if (data != nullptr) answer += data->view();
    return data == nullptr || answer.ends_with("=> ");
  }));
  EXPECT_EQ(answer, "2.33\r\n=> ");
  ASSERT_TRUE(channel->close());
  std::string written;
  std::string read;
  for (const LogFileLine& line : linesOfLog(folder.pathOf("log"))) {
    (line.identifier == "pre--write" ? written : read) += line.text + "|";
  }
  EXPECT_EQ(written, "version||");
  // The answer may have come in several pieces.
  std::erase(read, '|');
  EXPECT_EQ(read, "2.33=> ");
}

INSTANTIATE_TEST_SUITE_P(Kinds, ZPILoggingChannelDeviceTest,
                         testing::Values(SimulatedDevice::Kind::kTerminal,
                                         SimulatedDevice::Kind::kTCP,
                                         SimulatedDevice::Kind::kUnix));

}  // namespace
