#include "Crashes/Traffic.h"

#include <ZephalConsole/Console.h>
#include <ZephalIO/ZephalIO.h>
#include <ZephalSimulator/SimulatedDevice.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>

#include "Crashes/PieceSource.h"

namespace support {
namespace {

constexpr size_t kPartsOfUnit = 3;
constexpr const char* kUnitEnd = ";";

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

std::string bytesOfPiece(const Pieces& pieces, std::string_view, size_t number) {
  return pieces[number];
}

std::string bytesOfCommand(std::string_view identifier, size_t number) {
  return "#" + std::to_string(number) + " command" + (identifier == "pre--write" ? "\n" : "");
}

void waitUntilToldToEnd(const Progress& progress) {
  while (!progress.isToEnd) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// Hands what it reads to a recorder as it is, but with an end after every few pieces.
ZPKDataChannelPtr withUnits(const ZPKDataChannelPtr& channel) {
  const auto count = std::make_shared<size_t>(0);
  const auto end = createBlockTransformer(
      [count](ZPKMutableData* chunk) {
        if (chunk->length() > 0 && ++*count % kPartsOfUnit == 0) chunk->append(kUnitEnd, 1);
      },
      [] {});
  return createChannelTransformer(channel, {end}, {});
}

std::string bytesOfUnit(const Pieces& pieces, std::string_view identifier, size_t number) {
  if (identifier == "post--read") return pieces.range(number, kPartsOfUnit) + kUnitEnd;
  return pieces[number] + (number % kPartsOfUnit == kPartsOfUnit - 1 ? kUnitEnd : "");
}

ZPKDataChannelPtr sourceOf(const Assignment& assignment, Progress& progress) {
  return std::make_shared<PieceSource>(assignment.pieces, progress, assignment.pause,
                                       assignment.count);
}

ZPKCommLoggerStackPtr openRecorder(const Assignment& assignment, Progress& progress) {
  const auto recorder = ZPKCommLoggerStack::init();
  recorder->setDelimiter(kUnitEnd);
  recorder->setLogFilePath(assignment.log, assignment.rawLog);
  require(recorder->createStackWithBaseChannel(withUnits(sourceOf(assignment, progress))) &&
              recorder->open(),
          "the recorder does not open");
  return recorder;
}

void record(const Assignment& assignment, Progress& progress) {
  const auto recorder = openRecorder(assignment, progress);
  waitUntilToldToEnd(progress);
  require(recorder->close(), "the recorder does not close");
}

// A channel that answers each command with the piece of its number and a prompt.
class Answerer final : public ZPKDataChannel {
 public:
  explicit Answerer(Pieces pieces) : _pieces(pieces) {}
  bool openWithTimeout(double, ZPKErrorPtr*) override { return _isOpen = true; }
  bool close(ZPKErrorPtr*) override { return std::exchange(_isOpen, false); }
  bool reset(ZPKErrorPtr*) override { return true; }
  bool isOpened() const override { return _isOpen; }
  bool write(const ZPKDataPtr&, ZPKErrorPtr*) override {
    const std::string answer = _pieces[_next++] + kUnitEnd;
    _answer = ZPKData::dataWithBytes(answer.data(), answer.size());
    return true;
  }
  ZPKDataPtr readWithTimeout(double, ZPKErrorPtr*) override {
    return _answer == nullptr ? ZPKData::dataWithBytes("", 0) : std::exchange(_answer, nullptr);
  }

 private:
  const Pieces _pieces;
  bool _isOpen = false;
  size_t _next = 0;
  ZPKDataPtr _answer;
};

void converse(const Assignment& assignment, Progress& progress) {
  const auto stack = ZPKCommStack::init();
  stack->setDelimiter(kUnitEnd);
  stack->setLogFilePath(assignment.log, assignment.rawLog);
  require(stack->createStackWithBaseChannel(std::make_shared<Answerer>(assignment.pieces)) &&
              stack->openWithTimeout(std::nullopt),
          "the stack does not open");
  while (!progress.isToEnd) {
    const std::string command = bytesOfCommand("", progress.logged);
    const auto data = ZPKData::dataWithBytes(command.data(), command.size());
    require(stack->sendCommandData(data, 10) != nullptr, "no answer");
    if (!progress.addLogged()) break;
    std::this_thread::sleep_for(assignment.pause);
  }
  require(stack->close(), "the stack does not close");
}

std::string bytesOfConversation(const Pieces& pieces, std::string_view identifier, size_t number) {
  if (identifier.ends_with("-write")) return bytesOfCommand(identifier, number);
  return pieces[number] + kUnitEnd;
}

void readAndWrite(const Assignment& assignment, Progress& progress) {
  const auto source = sourceOf(assignment, progress);
  const auto channel = createLoggingChannel(source, assignment.log, "both", false);
  require(channel->openWithTimeout(1.0), "the channel does not open");
  std::thread writer([&] {
    for (size_t number = 0; !progress.isToEnd; ++number) {
      const std::string piece = assignment.pieces[number];
      channel->write(ZPKData::dataWithBytes(piece.data(), piece.size()));
      std::this_thread::sleep_for(assignment.pause);
    }
  });
  while (!progress.isToEnd) channel->readWithTimeout(1.0);
  writer.join();
  require(channel->close(), "the channel does not close");
}

void readSynchronously(const Assignment& assignment, Progress& progress) {
  const auto channel =
      createLoggingChannel(sourceOf(assignment, progress), assignment.log, "sync", true);
  require(channel->openWithTimeout(1.0), "the channel does not open");
  while (!progress.isToEnd) channel->readWithTimeout(1.0);
  require(channel->close(), "the channel does not close");
}

void ask(const Assignment& assignment, Progress& progress) {
  zephal::SimulatedDevice device(zephal::DeviceKind::kUnix,
                                 {.prompt = kPrompt, .respond = [](const std::string& command) {
                                    return consoleAnswer(std::stoul(command.substr(1))) + "\n";
                                  }});
  zephal::Console dut(device.url(),
                      {.prompt = kPrompt, .log = assignment.log, .rawLog = assignment.rawLog});
  while (!progress.isToEnd) {
    dut.ask(bytesOfCommand("", progress.logged));
    if (!progress.addLogged()) break;
    std::this_thread::sleep_for(assignment.pause);
  }
  dut.close();
}

std::string bytesOfAsking(const Pieces&, std::string_view identifier, size_t number) {
  if (identifier == "post-write") return bytesOfCommand(identifier, number);
  return number == kPromptNumber ? kPrompt : consoleAnswer(number);
}

}  // namespace

std::string consoleAnswer(size_t number) {
  return "#" + std::to_string(number) + " " + std::string(1 + number % 300, 'a');
}

void recordAndReopen(const Assignment& assignment, Progress& progress) {
  static std::atomic<bool> isToReopen{false};
  std::signal(SIGHUP, [](int) { isToReopen = true; });
  const auto recorder = openRecorder(assignment, progress);
  while (!progress.isToEnd) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (!isToReopen.exchange(false)) continue;
    require(recorder->close() && recorder->open(), "the recorder does not reopen");
  }
  require(recorder->close(), "the recorder does not close");
}

Traffic recorderTraffic() {
  return {.name = "Recorder", .run = record, .bytesOf = bytesOfUnit, .piecesOfChunk = kPartsOfUnit};
}

Traffic stackTraffic() {
  return {.name = "Stack", .run = converse, .bytesOf = bytesOfConversation};
}

Traffic twoThreadsTraffic() {
  return {.name = "TwoThreads", .run = readAndWrite, .bytesOf = bytesOfPiece};
}

Traffic synchronousTraffic() {
  return {.name = "Synchronous",
          .run = readSynchronously,
          .bytesOf = bytesOfPiece,
          .isSynchronous = true};
}

Traffic consoleTraffic() {
  return {.name = "Console", .run = ask, .bytesOf = bytesOfAsking, .knowsRawChunks = false};
}

std::ostream& operator<<(std::ostream& out, const Traffic& traffic) { return out << traffic.name; }

std::vector<Traffic> everyTraffic() {
  return {recorderTraffic(), stackTraffic(), twoThreadsTraffic(), synchronousTraffic(),
          consoleTraffic()};
}

}  // namespace support
