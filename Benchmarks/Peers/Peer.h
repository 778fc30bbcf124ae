#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "Endpoint.h"

/// How long each peer waits for a response, in seconds. No response takes that long.
constexpr int kPeerTimeout = 10;

/// One connection to a device, used as test code uses it: send a command, wait for the response,
/// get it as bytes of its own. Written for each library as its documentation says. A failure ends
/// the program.
class Peer {
 public:
  Peer() = default;
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  virtual ~Peer() = default;

  /// Sends a command, which is without its line feed.
  virtual void write(std::string_view command) = 0;
  /// Waits for the next response, up to the delimiter that it was opened with, and returns the
  /// length with the delimiter. The bytes have been in an object of the caller's, and are released.
  virtual size_t readResponse() = 0;
  /// Waits until work that was left to other threads is done.
  virtual void finish() {}
};

using PeerPtr = std::unique_ptr<Peer>;

/// What a connection is for. A peer whose buffers have a set size gets those that suit it.
struct Conversation {
  enum class Traffic { Commands, Lines, LongResponses };

  Endpoint device;
  std::string delimiter;  // the end of a response
  Traffic traffic = Traffic::Commands;

  bool isBulk() const { return traffic != Traffic::Commands; }
};
using PeerFactory = std::function<PeerPtr(const Conversation& conversation)>;

/// Says on standard output why a peer takes no part ("failed", "missing"), and ends the program.
[[noreturn]] void leaveContest(const char* how, const std::string& why);
/// Keeps the compiler from leaving out bytes that nobody looks at.
inline void useBytes(const void* bytes) { asm volatile("" : : "r"(bytes) : "memory"); }
