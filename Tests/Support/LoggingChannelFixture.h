#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Data Channel Internal/ZPILoggingChannel.h"
#include "Support/Bytes.h"
#include "Support/Files.h"
#include "Support/LogCapture.h"
#include "Support/LogFile.h"
#include "Support/ScriptedChannel.h"
#include "Support/TemporaryFolder.h"

namespace support {

/// A logging channel "pre-" over a scripted one, with its file in a folder of the test's own.
class LoggingChannelFixture : public testing::Test {
 protected:
  std::shared_ptr<ZPILoggingChannel> make(const std::string& path, bool synchronous = false) const {
    auto channel = ZPILoggingChannel::initWithLogFilePath(path, "pre-", _below);
    channel->setSynchronousLogging(synchronous);
    return channel;
  }
  void open() {
    _below->setOpened(false);
    ASSERT_TRUE(_channel->openWithTimeout(1.0, nullptr));
  }
  ZPKDataPtr readOf(std::string_view bytes) {
    _below->addRead(bytes);
    return _channel->readWithTimeout(1.0, nullptr);
  }
  bool write(std::string_view bytes) { return _channel->write(dataOf(bytes), nullptr); }
  std::string contents() const { return contentsOfFile(_path); }
  std::vector<std::string> texts() const { return textsOfLog(_path); }

  LogCapture _log;
  const TemporaryFolder _folder;
  const std::string _path = _folder.pathOf("log");
  const std::shared_ptr<ScriptedChannel> _below = ScriptedChannel::make();
  std::shared_ptr<ZPILoggingChannel> _channel = make(_path);
};

}  // namespace support
