#pragma once

#include <ZephalIO/ZephalIO.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Crashes/LoggedChunks.h"
#include "Crashes/PieceSource.h"

namespace support {

/// A recorder in this process, whose device says as many pieces as the test wants.
class Recording {
 public:
  /// Logs to `log` and `raw` in this folder, once it is open.
  explicit Recording(const std::string& folder);

  ZPKCommLoggerStack& recorder() { return *_recorder; }
  /// Lets the device say so many more pieces.
  void start(uint32_t count);
  /// The same, and waits until all have passed through the recorder and its logs have nothing left
  /// to do. False if the traffic stops.
  bool pass(uint32_t count);
  /// How many pieces have passed.
  uint32_t passed() const { return _progress->logged; }

  const std::string& log() const { return _log; }
  const std::string& rawLog() const { return _rawLog; }
  /// The chunks of one of its logs.
  std::vector<LoggedChunk> chunksOf(const std::string& path) const;

 private:
  const std::string _log;
  const std::string _rawLog;
  uint32_t _end = 0;
  const std::unique_ptr<Progress> _progress;
  const std::shared_ptr<PieceSource> _source;
  const ZPKCommLoggerStackPtr _recorder;
};

/// The numbers of the whole chunks of a log, in their order.
std::vector<size_t> numbersOf(const std::vector<LoggedChunk>& chunks);
/// The numbers from `first` up to but not including `end`.
std::vector<size_t> range(size_t first, size_t end);
/// How many chunks of a log are cut.
size_t cutChunksOf(const std::vector<LoggedChunk>& chunks);
/// Waits until all other threads of this process sleep.
bool waitUntilOthersSleep();

}  // namespace support
