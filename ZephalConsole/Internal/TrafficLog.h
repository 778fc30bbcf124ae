#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "ZPKDataChannel.h"

namespace zephal::internal {

/// A log file of the library (createLoggingChannel), which is told what was read and written.
/// Without a path it does nothing. For one thread at a time.
class TrafficLog {
 public:
  /// `identifier` is in front of the direction in each line.
  TrafficLog(const std::string& path, std::string_view identifier);

  /// Whether there is a path.
  bool isWanted() const { return _channel != nullptr; }
  /// Throws OpenError in the name of `url`.
  void open(const std::string& url);
  void close();
  void read(std::string_view bytes);
  void wrote(std::string_view bytes);

 private:
  class Feed;

  std::shared_ptr<Feed> _feed;
  ZPKDataChannelPtr _channel;  // null without a path
};

}  // namespace zephal::internal
