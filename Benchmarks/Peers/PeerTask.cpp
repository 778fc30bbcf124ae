#include "Peers/PeerTask.h"

namespace {

constexpr size_t kMebi = 1024 * 1024;

// Commands are answered by "pong", or by `size` bytes.
void addRoundTrips(const char* name, bool isPinned, size_t size, std::vector<PeerTask>& tasks) {
  for (const Transport transport : {Transport::Unix, Transport::Tcp, Transport::Pty}) {
    tasks.push_back({std::string(name) + "-" + nameOf(transport) + (isPinned ? "-pinned" : "-free"),
                     PeerTask::Kind::RoundTrips, transport, isPinned, size});
  }
}

}  // namespace

std::string PeerTask::traffic() const {
  if (kind == Kind::Lines) return "lines";
  return kind == Kind::Response ? "response" : "commands";
}

// Lines, responses and memory go by TCP, which every peer speaks.
std::vector<PeerTask> allPeerTasks() {
  using Kind = PeerTask::Kind;
  std::vector<PeerTask> tasks;
  addRoundTrips("command", true, 0, tasks);
  addRoundTrips("answer", true, 80, tasks);
  addRoundTrips("command", false, 0, tasks);
  for (const size_t size : {16, 80, 1000}) {
    tasks.push_back({"lines-" + std::to_string(size), Kind::Lines, Transport::Tcp, true, size});
  }
  tasks.push_back({"response-once", Kind::Response, Transport::Tcp, true, 0, 32 * kMebi});
  tasks.push_back({"response-pieces", Kind::Response, Transport::Tcp, true, 0, 4096});
  tasks.push_back({"memory", Kind::Memory, Transport::Tcp, false});
  return tasks;
}
