#include "Support/BusyWriter.h"

#include <gtest/gtest.h>

#include <optional>
#include <utility>

#include "Support/EventWait.h"
#include "Support/ThreadCalls.h"

namespace support {

BusyWriter::BusyWriter(std::function<void(size_t)> write, bool hasThreads)
    : _write(std::move(write)), _thread([this, hasThreads] { run(hasThreads); }) {
  EXPECT_TRUE(waitFor([this] { return _writes > 100; }));
}

BusyWriter::~BusyWriter() { stop(); }

size_t BusyWriter::stop() {
  _isDone = true;
  if (_thread.joinable()) _thread.join();
  return _writes;
}

void BusyWriter::run(bool hasThreads) {
  std::optional<RefusedThreads> refused;
  if (!hasThreads) refused.emplace();
  while (!_isDone) {
    _write(_writes);
    ++_writes;
  }
}

}  // namespace support
