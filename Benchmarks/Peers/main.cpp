// Measures the library beside its peers: the same tasks on the same simulated device, in one run.
//
//     zephalio-peers measure PYTHON_PEERS [--quick] [--python] [TASK...]
//     zephalio-peers work PEER URL DELIMITER TRAFFIC CPU
//
// PeerContest.h says what the first prints, for all tasks or those named, and with --python for the
// contenders in Python only. The second is the process of one peer (PeerWorker.h).
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "Peers/PeerContest.h"
#include "Peers/PeerWorker.h"

namespace {

constexpr PeerContest::Effort kFull = {21, 0.03, 100};
// Enough to see that everything works.
constexpr PeerContest::Effort kQuick = {1, 0.002, 5};

int measure(const std::string& pythonPeers, std::vector<std::string> names) {
  const bool isQuick = std::erase(names, "--quick") > 0;
  const bool onlyPython = std::erase(names, "--python") > 0;
  char own[4096] = "";
  if (::readlink("/proc/self/exe", own, sizeof own - 1) < 0) return 1;
  for (const PeerTask& task : allPeerTasks()) {
    const bool isNamed = std::find(names.begin(), names.end(), task.name) != names.end();
    if (!names.empty() && !isNamed) continue;
    PeerContest(task, isQuick ? kQuick : kFull, {own, pythonPeers}, onlyPython).run();
  }
  return 0;
}

Conversation::Traffic trafficOf(const std::string& name) {
  if (name == "lines") return Conversation::Traffic::Lines;
  if (name == "response") return Conversation::Traffic::LongResponses;
  return Conversation::Traffic::Commands;
}

int work(const std::vector<std::string>& arguments) {
  pinTo(std::atoi(arguments[6].c_str()));
  for (const Contender& contender : allContenders()) {
    if (contender.name != arguments[2] || !contender.open) continue;
    const Endpoint device = Endpoint::fromURL(arguments[3]);
    PeerWorker(contender.open, {device, arguments[4], trafficOf(arguments[5])}).run();
    return 0;
  }
  leaveContest("failed", "no such peer");
}

}  // namespace

int main(int count, char** values) {
  std::vector<std::string> arguments(values, values + count);
  if (count == 7 && arguments[1] == "work") return work(arguments);
  if (count > 2 && arguments[1] == "measure") {
    return measure(arguments[2], {arguments.begin() + 3, arguments.end()});
  }
  std::fputs("usage: zephalio-peers measure PYTHON_PEERS [--quick] [--python] [TASK...]\n", stderr);
  return 2;
}
