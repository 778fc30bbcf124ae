#include "Peers/PeerContest.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "Measure.h"

namespace {

constexpr size_t kLongResponse = 16 * 1024 * 1024;
constexpr size_t kShorterResponse = 64 * 1024;

size_t responseBytes(const Contender& contender) {
  return contender.readsByByte ? kShorterResponse : kLongResponse;
}

void printTimes(const std::vector<double>& times) {
  std::printf("\t%.4g\t%.4g\t%.4g", median(times), *std::min_element(times.begin(), times.end()),
              *std::max_element(times.begin(), times.end()));
}

}  // namespace

PeerContest::PeerContest(PeerTask task, Effort effort, Programs programs, bool onlyPython)
    : _task(std::move(task)),
      _effort(effort),
      _programs(std::move(programs)),
      _onlyPython(onlyPython) {
  // It varies little, and hundreds of background readers take seconds to close.
  if (_task.kind == PeerTask::Kind::Memory) _effort.rounds = std::min(_effort.rounds, 3);
}

void PeerContest::run() {
  std::vector<Entry> entries;
  for (const Contender& contender : allContenders()) {
    if (_onlyPython && contender.open) continue;
    entries.push_back({&contender, nullptr, nullptr, "", 1, {}, {}});
    start(entries.back());
    warmUp(entries.back());
  }
  for (int round = 0; round < _effort.rounds; ++round) {
    // The first one changes: nobody is always the one that finds a machine gone quiet.
    for (size_t i = 0; i < entries.size(); ++i) {
      runRound(entries[(i + static_cast<size_t>(round)) % entries.size()]);
    }
  }
  for (const Entry& entry : entries) print(entry);
}

void PeerContest::start(Entry& entry) const {
  const bool servesMany = _task.kind == PeerTask::Kind::Memory;
  entry.process = nullptr;
  entry.device = std::make_unique<Device>(_task.transport, _task.cpu(), servesMany);
  entry.process = std::make_unique<PeerProcess>(commandFor(entry));
  const std::string greeting = entry.process->readLine();
  if (greeting != "ready") entry.excuse = greeting;
}

std::vector<std::string> PeerContest::commandFor(const Entry& entry) const {
  std::vector<std::string> command = {_programs.own, "work"};
  // Debian's own interpreter: another one does not see Debian's packages.
  if (!entry.contender->open) command = {"/usr/bin/python3", _programs.python};
  command.push_back(entry.contender->name);
  command.push_back(entry.device->url());
  command.push_back(_task.delimiter());
  command.push_back(_task.traffic());
  command.push_back(std::to_string(_task.cpu()));
  return command;
}

// Finds how many units fill a round.
void PeerContest::warmUp(Entry& entry) const {
  if (_task.kind == PeerTask::Kind::Memory) return;
  for (;;) {
    const std::optional<Times> times = ask(entry);
    if (!times.has_value()) return;
    const double missing = _effort.seconds / std::max(times->wall, 1e-6);
    if (missing < 1.5) return;
    entry.units = static_cast<size_t>(static_cast<double>(entry.units) * std::min(missing, 10.0));
  }
}

void PeerContest::runRound(Entry& entry) const {
  if (!entry.excuse.empty()) return;
  // Memory that was used before would hide what the connections need.
  if (_task.kind == PeerTask::Kind::Memory && !entry.processor.empty()) start(entry);
  const std::optional<Times> times = ask(entry);
  if (!times.has_value()) return;
  double units = static_cast<double>(entry.units);
  if (_task.kind == PeerTask::Kind::Response) {
    units *= static_cast<double>(responseBytes(*entry.contender)) / double{kLongResponse};
  }
  entry.processor.push_back(times->processor / units);
  entry.wall.push_back(times->wall / units);
}

// Nothing if it takes no part.
std::optional<PeerContest::Times> PeerContest::ask(Entry& entry) const {
  if (!entry.excuse.empty()) return std::nullopt;
  const std::string answer = entry.process->ask(requestFor(entry));
  Times times{0, 0};
  if (std::sscanf(answer.c_str(), "%lf %lf", &times.processor, &times.wall) == 2) return times;
  entry.excuse = answer;
  return std::nullopt;
}

std::string PeerContest::requestFor(const Entry& entry) const {
  const std::string units = std::to_string(entry.units);
  const std::string size = std::to_string(_task.size);
  const std::string bytes = std::to_string(responseBytes(*entry.contender));
  switch (_task.kind) {
    case PeerTask::Kind::RoundTrips:
      if (_task.size == 0) return "ask " + units + " 7 ping";
      return "ask " + units + " " + std::to_string(_task.size + 2) + " big " + size + " 4096";
    case PeerTask::Kind::Lines:
      return "read " + units + " " + size + " flood " + size + " " + units;
    case PeerTask::Kind::Memory: return "hold " + std::to_string(_effort.connections);
    case PeerTask::Kind::Response: break;
  }
  return "ask " + units + " " + std::to_string(responseBytes(*entry.contender) + 2) + " big " +
         bytes + " " + std::to_string(_task.piece);
}

void PeerContest::print(const Entry& entry) const {
  std::printf("%s\t%s", _task.name.c_str(), entry.contender->name.c_str());
  if (entry.excuse.empty()) {
    const bool isShorter = _task.kind == PeerTask::Kind::Response && entry.contender->readsByByte;
    std::printf("\tmeasured\t%zu", isShorter ? kShorterResponse : 0);
    printTimes(entry.processor);
    printTimes(entry.wall);
  } else {
    std::printf("\t%s", entry.excuse.c_str());
  }
  std::puts("");
  std::fflush(stdout);
}
