#include "Peers/PeerWorker.h"

#include <cstdio>
#include <iostream>
#include <sstream>
#include <utility>

#include "Measure.h"

namespace {

constexpr size_t kFirstConnections = 10;  // for what the first ones cost once for all

void expectResponse(Peer& peer, size_t length) {
  const size_t received = peer.readResponse();
  if (received == length) return;
  leaveContest("failed", "a response of " + std::to_string(received) + " bytes instead of " +
                             std::to_string(length));
}

// The memory that belongs to this process alone, in bytes.
double privateBytes() {
  std::FILE* file = std::fopen("/proc/self/smaps_rollup", "r");
  if (file == nullptr) leaveContest("failed", "no smaps_rollup");
  char line[256];
  long kibibytes = 0;
  while (std::fgets(line, sizeof line, file) != nullptr) {
    if (std::sscanf(line, "Private_Dirty: %ld", &kibibytes) == 1) break;
  }
  std::fclose(file);
  return static_cast<double>(kibibytes) * 1024;
}

void answer(const std::string& text) {
  std::puts(text.c_str());
  std::fflush(stdout);
}

}  // namespace

PeerWorker::PeerWorker(PeerFactory open, Conversation conversation)
    : _open(std::move(open)), _conversation(std::move(conversation)), _peer(_open(_conversation)) {}

void PeerWorker::run() {
  answer("ready");
  for (std::string line; std::getline(std::cin, line);) work(line);
}

void PeerWorker::work(const std::string& line) {
  std::istringstream words(line);
  std::string what;
  size_t count = 0;
  size_t length = 0;
  words >> what >> count;
  if (what == "hold") return hold(count);
  std::string command;
  words >> length >> std::ws;
  std::getline(words, command);
  if (what == "ask") return measure(count, 1, length, command);
  measure(1, count, length, command);
}

void PeerWorker::measure(size_t commands, size_t responses, size_t length,
                         const std::string& command) {
  const double start = processorSeconds();
  const double wall = wallSecondsFor([&] {
    for (size_t i = 0; i < commands; ++i) {
      _peer->write(command);
      for (size_t j = 0; j < responses; ++j) expectResponse(*_peer, length);
    }
  });
  _peer->finish();
  answer(number(processorSeconds() - start, 9) + " " + number(wall, 9));
}

void PeerWorker::hold(size_t count) {
  _held.reserve(kFirstConnections + count);
  double before = 0;
  for (size_t i = 0; i < kFirstConnections + count; ++i) {
    if (i == kFirstConnections) before = privateBytes();
    _held.push_back(_open(_conversation));
    _held.back()->write("ping");
    _held.back()->readResponse();
  }
  answer(number((privateBytes() - before) / static_cast<double>(count), 0) + " 0");
}
