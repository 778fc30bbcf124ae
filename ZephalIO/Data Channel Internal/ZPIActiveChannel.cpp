#include "Data Channel Internal/ZPIActiveChannel.h"

#include <cerrno>
#include <new>
#include <utility>

#include "Utility/ZPIDataGivingUp.h"
#include "Utility/ZPIThreadHelpers.h"
#include "Utility/ZPKReportFailure.h"

namespace {

// A compromise: close may have to wait this long for the thread, and an idle thread wakes up this
// often.
constexpr double kReadSlice = 1.0 / 30.0;

constexpr const char* kReadSite = "-[ZPIActiveChannel readWithTimeout:error:]";

// Written so that not-a-number is rejected too.
bool isValidTimeout(double timeout) {
  return timeout >= 0.0 || timeout == ZEPHAL_COMMUNICATION_TIME_FOREVER ||
         timeout == ZEPHAL_COMMUNICATION_TIME_NOW;
}

void report(ZPKErrorPtr* error, int code, const ZPIFailureSite& site, const char* message) {
  ZPKReportFailure(error, kZPICommunicationDomain, code, site, message);
}

}  // namespace

std::shared_ptr<ZPIActiveChannel> ZPIActiveChannel::initWithChannel(ZPKDataChannelPtr channel,
                                                                    bool bufferData) {
  auto result = std::make_shared<ZPIActiveChannel>(Key(), std::move(channel), bufferData);
  if (result->_commChannel->isOpened()) {
    const std::lock_guard guard(result->_stateLock);
    result->detach_read_loop__unsafe(&result->_thread);
  }
  return result;
}

ZPIActiveChannel::ZPIActiveChannel(Key, ZPKDataChannelPtr channel, bool bufferData)
    : _buffer(bufferData), _commChannel(std::move(channel)) {}

// The thread of a failed channel is never joined, since it may be this very thread. Once detached
// it frees its stack by itself.
ZPIActiveChannel::~ZPIActiveChannel() {
  if (isThread(_thread)) pthread_detach(_thread);
}

bool ZPIActiveChannel::openWithTimeout(double timeout, ZPKErrorPtr* error) {
  {
    const std::lock_guard guard(_stateLock);
    if (isOpen_unsafe()) {
      report(error, 1, {"-[ZPIActiveChannel openWithTimeout:error:]"}, "Device Already Opened");
      return false;
    }
    if (_commChannel->openWithTimeout(timeout, error)) startReading_unsafe(error);
  }
  return _commChannel->isOpened();
}

bool ZPIActiveChannel::close(ZPKErrorPtr* error) {
  const std::lock_guard guard(_stateLock);
  if (!isOpen_unsafe()) return closeFailed(error);
  _chan.load()->_queue.Close();
  endThread_unsafe();
  return _commChannel->close(error);
}

bool ZPIActiveChannel::reset(ZPKErrorPtr* error) {
  const std::lock_guard guard(_stateLock);
  if (isOpen_unsafe()) {
    report(error, 1, {"-[ZPIActiveChannel reset:]"}, "Reset not supported while channel is open");
    return false;
  }
  return _commChannel->reset(error);
}

bool ZPIActiveChannel::isOpened() const {
  const std::lock_guard guard(_stateLock);
  return isOpen_unsafe();
}

ZPKDataPtr ZPIActiveChannel::readWithTimeout(double timeout, ZPKErrorPtr* error) {
  if (!_buffer) {
    report(error, 6, {kReadSite}, "active null stub does not support read");
    return nullptr;
  }
  if (!isOpened()) {
    report(error, 2, {kReadSite}, "Cannot communicate with closed devices");
    return nullptr;
  }
  if (!isValidTimeout(timeout)) {
    report(error, 3, {kReadSite}, "time out has an invalid value");
    return nullptr;
  }
  const HandoverPtr handover = _chan.load();  // not null: the channel was open a moment ago
  ZPIHeapVector<uint8_t> bytes;
  const bool isReceived = handover->_queue.TryReceive(timeout, bytes);
  const int reason = errno;
  if (handover->_queue.isClosed()) {
    if (error != nullptr) *error = handover->_readError.load();
    return nullptr;
  }
  if (isReceived || reason == ETIMEDOUT) return ZPIDataGivingUp(&bytes);
  ZPKReportFailure(error, kZPICommunicationDomain, 5, {kReadSite}, "read failed with error %s (%d)",
                   ZPIErrorText(reason), reason);
  return nullptr;
}

bool ZPIActiveChannel::write(const ZPKDataPtr& data, ZPKErrorPtr* error) {
  constexpr const char* kSite = "-[ZPIActiveChannel write:error:]";
  if (!_buffer) {
    report(error, 6, {kSite}, "active null stub does not support write");
    return false;
  }
  if (!isOpened()) {
    report(error, 2, {kSite}, "Cannot communicate with closed devices");
    return false;
  }
  return _commChannel->write(data, error);
}

bool ZPIActiveChannel::isOpen_unsafe() const {
  if (!_commChannel->isOpened()) return false;
  const HandoverPtr handover = _chan.load();
  return handover != nullptr && !handover->_queue.isClosed();
}

void ZPIActiveChannel::detach_read_loop__unsafe(pthread_t* thread) {
  // The thread of the last opening has failed or is about to. It must not be joined, and must not
  // continue to read what is now open again.
  if (const HandoverPtr last = _chan.load()) last->_queue.Close();
  if (isThread(*thread)) pthread_detach(std::exchange(*thread, pthread_t()));
  const auto handover = std::make_shared<Handover>();
  newThreadWithBlock(thread, [self = shared_from_this(), handover] { self->readBelow(*handover); });
  _chan.store(handover);  // not before: without memory there is no thread, and this is not open
  if (!isThread(*thread)) failWithoutThread(*handover);
}

// Marks this opening as failed, since no thread will read below.
void ZPIActiveChannel::failWithoutThread(Handover& handover) {
  handover._queue.Close();
  ZPKErrorPtr error;
  report(&error, 5, {"detach_read_loop__unsafe"}, "Failed to start thread");
  handover._readError.store(std::move(error));
}

// Starts to read what was just opened. Without a thread, or without memory for one, it is closed
// again: otherwise it could neither be used nor closed from here, and a later open would fail.
void ZPIActiveChannel::startReading_unsafe(ZPKErrorPtr* error) {
  try {
    detach_read_loop__unsafe(&_thread);
  } catch (const std::bad_alloc&) {
    _commChannel->close(nullptr);
    throw;
  }
  if (!isThread(_thread)) closeUnread_unsafe(error);
}

void ZPIActiveChannel::closeUnread_unsafe(ZPKErrorPtr* error) {
  _commChannel->close(nullptr);
  if (error != nullptr) *error = _chan.load()->_readError.load();
}

// Waits for the thread, which has been told to end, for at most one slice.
void ZPIActiveChannel::endThread_unsafe() {
  const pthread_t thread = std::exchange(_thread, pthread_t());
  if (!isThread(thread)) return;
  if (pthread_equal(thread, pthread_self()) != 0) {
    pthread_detach(thread);  // a callback of the read below calls close on the thread itself
  } else {
    pthread_join(thread, nullptr);
  }
}

// The body of the thread. It uses only its own handover, since `_chan` may have been replaced.
void ZPIActiveChannel::readBelow(Handover& handover) const {
  while (!handover._queue.isClosed()) {
    ZPKErrorPtr error;
    if (readSlice(&handover._queue, &error)) continue;
    handover._queue.Close();
    handover._readError.store(std::move(error));
  }
}

// Reads one time and queues the bytes; false if the read failed or there is no memory. An exception
// would end the process here.
bool ZPIActiveChannel::readSlice(databufferchannel_t<uint8_t>* queue, ZPKErrorPtr* error) const {
  try {
    const ZPKDataPtr data = _commChannel->readWithTimeout(kReadSlice, error);
    if (data != nullptr && _buffer) queue->Send(data->bytes(), data->length());
    return data != nullptr;
  } catch (const std::bad_alloc&) {
    closeOutOfMemory(error);
    return false;
  }
}

// Closes the channel below, as a failed read of a transport would have done. If there is no memory
// even for that, or for the error, nothing can be reported.
void ZPIActiveChannel::closeOutOfMemory(ZPKErrorPtr* error) const {
  try {
    if (_commChannel->isOpened()) _commChannel->close(nullptr);
    ZPKReportFailure(error, kZPICommunicationDomain, 5, {kReadSite},
                     "Read failed with error %s (%d)", ZPIErrorText(ENOMEM), ENOMEM);
  } catch (const std::bad_alloc&) {
    return;
  }
}

// Fails with the error of the thread, under the code of a closed device. The error was logged when
// it happened.
bool ZPIActiveChannel::closeFailed(ZPKErrorPtr* error) const {
  const HandoverPtr handover = _chan.load();
  const ZPKErrorPtr readError = handover == nullptr ? nullptr : handover->_readError.load();
  if (readError == nullptr) {
    report(error, 2, {"-[ZPIActiveChannel close:]"}, "Device Already Closed");
  } else if (error != nullptr) {
    *error = ZPKError::init(readError->domain(), 2, readError->userInfo());
  }
  return false;
}
