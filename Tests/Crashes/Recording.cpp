#include "Crashes/Recording.h"

#include <unistd.h>

#include <filesystem>
#include <numeric>
#include <system_error>

#include "RealPrograms/Support/RealProgram.h"
#include "Support/Files.h"
#include "Support/ProcessThreads.h"

namespace support {
namespace {

const Pieces kPieces(20);

bool areOthersAsleep() {
  std::error_code ignored;  // a thread may end during the walk
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task", ignored)) {
    const pid_t number = std::stoi(thread.path().filename());
    if (number != ::gettid() && !isThreadAsleep(number)) return false;
  }
  return true;
}

}  // namespace

Recording::Recording(const std::string& folder)
    : _log(folder + "/log"),
      _rawLog(folder + "/raw"),
      _progress(std::make_unique<Progress>()),
      _source(std::make_shared<PieceSource>(kPieces, *_progress, std::chrono::microseconds(0), 0)),
      _recorder(ZPKCommLoggerStack::init()) {
  _recorder->setLogFilePath(_log, _rawLog);
  _recorder->createStackWithBaseChannel(_source);
}

void Recording::start(uint32_t count) {
  _end += count;
  _source->setCount(_end);
}

bool Recording::pass(uint32_t count) {
  start(count);
  return waitFor([this] { return passed() == _end; }) && waitUntilOthersSleep();
}

std::vector<LoggedChunk> Recording::chunksOf(const std::string& path) const {
  return chunksOfLog(contentsOfFile(path),
                     [](std::string_view, size_t number) { return kPieces[number]; });
}

std::vector<size_t> numbersOf(const std::vector<LoggedChunk>& chunks) {
  std::vector<size_t> numbers;
  for (const LoggedChunk& chunk : chunks) {
    if (chunk.isWhole) numbers.push_back(chunk.number);
  }
  return numbers;
}

std::vector<size_t> range(size_t first, size_t end) {
  std::vector<size_t> numbers(end - first);
  std::iota(numbers.begin(), numbers.end(), first);
  return numbers;
}

size_t cutChunksOf(const std::vector<LoggedChunk>& chunks) {
  return chunks.size() - numbersOf(chunks).size();
}

bool waitUntilOthersSleep() { return waitFor(areOthersAsleep); }

}  // namespace support
