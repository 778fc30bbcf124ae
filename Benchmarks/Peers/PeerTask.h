#pragma once

#include <string>
#include <vector>

#include "Device.h"

/// Something that every peer does.
struct PeerTask {
  enum class Kind { RoundTrips, Lines, Response, Memory };

  std::string name;  // in the results
  Kind kind;
  Transport transport;
  bool isPinned;     // client and device on one CPU
  size_t size = 0;   // bytes of a line, or of a short answer
  size_t piece = 0;  // bytes of a device's write, for a response

  std::string delimiter() const { return kind == Kind::Lines ? "\n" : "> "; }
  /// What PeerWorker is told of it.
  std::string traffic() const;
  int cpu() const { return isPinned ? kClientCPU : -1; }
};

/// All of them, in the order of the page.
std::vector<PeerTask> allPeerTasks();
