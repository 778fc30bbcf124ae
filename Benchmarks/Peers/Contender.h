#pragma once

#include <string>
#include <vector>

#include "Peers/Peer.h"

/// A row of the results.
struct Contender {
  std::string name;
  PeerFactory open;          // empty for one in Python
  bool readsByByte = false;  // takes minutes for a long response, and gets a shorter one
};

/// All of them, in the order of the page.
const std::vector<Contender>& allContenders();
