#pragma once

#include <string>

#include "Support/TemporaryFolder.h"

namespace support {

/// A unix socket on which nobody reads. It has room for `peers` connections, and is full after
/// them.
class SilentListener {
 public:
  explicit SilentListener(int peers);
  SilentListener(const SilentListener&) = delete;
  SilentListener& operator=(const SilentListener&) = delete;
  ~SilentListener();

  std::string url() const { return "unix://" + _folder.pathOf("socket"); }

 private:
  TemporaryFolder _folder;
  int _listener;
  int _first = -1;
};

}  // namespace support
