// Logs that take nothing for a while: a FIFO that is not being read.
#include <ZephalIO/ZephalIO.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <string>
#include <vector>

#include "Crashes/LibraryLines.h"
#include "Crashes/Recording.h"
#include "Support/CheckedCalls.h"
#include "Support/Files.h"
#include "Support/TemporaryFolder.h"

namespace {

using namespace support;
using testing::IsEmpty;

std::string readUntilClosed(int descriptor) {
  std::string text;
  char buffer[4096];
  for (ssize_t count = 0; (count = ::read(descriptor, buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<size_t>(count));
  }
  return text;
}

// The raw log is a FIFO, and the other one a file.
class SlowLog : public testing::Test {
 protected:
  SlowLog() {
    checked(::mkfifo(_recording.rawLog().c_str(), 0600), "mkfifo");
    _reader = openReader();
  }
  ~SlowLog() override { closeIfOpen(&_reader); }

  int openReader() const {
    return checked(::open(_recording.rawLog().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC), "open");
  }

  // Reads all that the recorder still has to write, until it is closed.
  std::vector<size_t> numbersReadByClose() {
    ::fcntl(_reader, F_SETFL, 0);
    auto text = std::async(std::launch::async, [this] { return readUntilClosed(_reader); });
    EXPECT_TRUE(_recording.recorder().close());
    const std::string path = _folder.pathOf("read");
    writeFile(path, text.get());
    return numbersOf(_recording.chunksOf(path));
  }

  const TemporaryFolder _folder;
  const LibraryLines _lines;
  Recording _recording{_folder.path()};
  int _reader = -1;
};

TEST_F(SlowLog, HoldsUpNeitherTheTrafficNorTheOtherLog) {
  ASSERT_TRUE(_recording.recorder().open() && _recording.pass(2000));
  EXPECT_EQ(numbersOf(_recording.chunksOf(_recording.log())), range(0, 2000));
  EXPECT_EQ(numbersReadByClose(), range(0, 2000));
  EXPECT_THAT(_lines.all(), IsEmpty());
}

TEST_F(SlowLog, ThatLosesItsReaderGoesOnWithTheNext) {
  ASSERT_TRUE(_recording.recorder().open() && _recording.pass(10));
  closeIfOpen(&_reader);
  EXPECT_TRUE(_recording.pass(10));
  _reader = openReader();
  EXPECT_TRUE(_recording.pass(10));
  std::vector<size_t> numbers = range(0, 10);  // the system has kept them
  const std::vector<size_t> rest = range(20, 30);
  numbers.insert(numbers.end(), rest.begin(), rest.end());
  EXPECT_EQ(numbersReadByClose(), numbers);
  EXPECT_THAT(_lines.all(), IsEmpty());
}

}  // namespace
