#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "Support/ErrorExpectations.h"
#include "Support/LogCapture.h"
#include "Support/SocketPair.h"
#include "Utility/DescriptorOperation.h"

namespace support {

/// What a policy is to do, and what it was asked.
struct PolicyRecord {
  int32_t descriptor = -1;    // the next acquire stores this
  bool isAcquireGood = true;  // what it returns
  bool isCloseGood = true;
  int acquired = 0;
  std::vector<int32_t> closed;
  std::vector<bool> closedWithSlot;
};

/// A policy of ZPIFileDescriptorCommunication that opens and closes nothing, and records its calls.
class RecordingPolicy {
 public:
  static constexpr bool kIsSocket = true;

  explicit RecordingPolicy(PolicyRecord* record) : _record(record) {}

  bool acquire(int32_t* descriptor, ZPKErrorPtr* error) const {
    ++_record->acquired;
    *descriptor = _record->descriptor;
    if (!_record->isAcquireGood && error != nullptr) *error = stepError();
    return _record->isAcquireGood;
  }

  bool close(int32_t descriptor, ZPKErrorPtr* error) const {
    _record->closed.push_back(descriptor);
    _record->closedWithSlot.push_back(error != nullptr);
    if (!_record->isCloseGood && error != nullptr) *error = closeError();
    return _record->isCloseGood;
  }

  static ZPKErrorPtr stepError() {
    static const ZPKErrorPtr error = ZPKError::init("step", 4, {});
    return error;
  }
  static ZPKErrorPtr closeError() {
    static const ZPKErrorPtr error = ZPKError::init("close", 4, {});
    return error;
  }

 private:
  PolicyRecord* _record;
};

using RecordingCommunication = ZPIFileDescriptorCommunication<RecordingPolicy>;

/// Communication over one end of a socket pair; a test chooses whether it begins closed or open.
class FileDescriptorCommunicationFixture : public testing::Test {
 protected:
  RecordingCommunication closedOne() {
    return RecordingCommunication(-1, RecordingPolicy(&_record));
  }
  RecordingCommunication openOne() {
    return RecordingCommunication(_pair.ours, RecordingPolicy(&_record));
  }

  PolicyRecord _record;
  SocketPair _pair;
  LogCapture _log;
  ZPKErrorPtr _error = olderError();
};

}  // namespace support
