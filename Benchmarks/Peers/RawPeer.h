#pragma once

#include "Peers/Peer.h"

/// The limit: the system calls that a client needs, and nothing else. It asks how much is there
/// (FIONREAD), waits (select) and reads to the end of what it holds. A response of its own is the
/// whole buffer, if nothing comes after it, or a copy.
class RawPeer final : public Peer {
 public:
  explicit RawPeer(const Conversation& conversation);
  ~RawPeer() override;

  void write(std::string_view command) override;
  size_t readResponse() override;

 private:
  size_t findEnd(size_t from) const;
  size_t take(size_t length);
  void readMore();
  void makeRoom(size_t count);

  int _fd;
  std::string _delimiter;
  char* _buffer = nullptr;
  size_t _capacity = 0;
  size_t _head = 0;    // where the bytes begin that are not returned yet
  size_t _length = 0;  // how many there are
};
