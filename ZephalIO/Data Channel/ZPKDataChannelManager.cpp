#include "Data Channel/ZPKDataChannelManager.h"

#include <pthread.h>

#include <array>
#include <cstdio>
#include <new>
#include <string>
#include <utility>

#include "Data Channel/ZPKDataDefaultSerializer.h"
#include "Utility/ZPIThreadHelpers.h"
#include "Utility/ZPIThreadName.h"
#include "Utility/ZPKReportFailure.h"

namespace {

using Operation = ZPKDataChannelManagerDelegate::Operation;

constexpr double kReadTimeout = 1000.0;
constexpr const char* kLoopThreadName = "zephalbench.ZPKdataChannelManager.recv";

}  // namespace

ZPKDataChannelManagerDelegate::~ZPKDataChannelManagerDelegate() = default;

bool ZPKDataChannelManagerDelegate::implements(Operation /*operation*/) const { return true; }

bool ZPKDataChannelManagerDelegate::shouldDeserializeData(
    const ZPKDataChannelManagerPtr& /*manager*/, const ZPKDataChannelPtr& /*dataChannel*/,
    const ZPKDataPtr& /*data*/) {
  return true;
}

void ZPKDataChannelManagerDelegate::didReceiveMessage(const ZPKDataChannelManagerPtr& /*manager*/,
                                                      const ZPKDataChannelPtr& /*dataChannel*/,
                                                      const ZPKObjectPtr& /*message*/) {}

void ZPKDataChannelManagerDelegate::didDisconnect(const ZPKDataChannelManagerPtr& /*manager*/,
                                                  const ZPKDataChannelPtr& /*dataChannel*/,
                                                  const ZPKErrorPtr& /*error*/) {}

ZPKDataChannelManagerPtr ZPKDataChannelManager::managerWithDataChannel(
    const ZPKDataChannelPtr& dataChannel, const ZPKDataChannelManagerDelegatePtr& delegate,
    bool option, ZPKErrorPtr* error, const ZPKDataSerializerPtr& deserializer) {
  const auto refuse = [error](const char* reason) {
    ZPKReportFailure(error, kZPICommunicationDomain, 9,
                     {"+[ZPKDataChannelManager "
                      "managerWithDataChannel:delegate:option:error:deserializer:]"},
                     reason);
    return nullptr;
  };
  if (dataChannel == nullptr) return refuse("dataChannel cannot be nil");
  if (delegate == nullptr) return refuse("Delegate cannot be nil");
  auto manager = init();
  manager->setDelegate(delegate);
  manager->setZPKdataChannelManagerReceiveUndetached(option);
  manager->setDataChannel(dataChannel);
  manager->setDeserializer(deserializer);
  return manager;
}

ZPKDataChannelManagerPtr ZPKDataChannelManager::managerWithDataChannel(
    const ZPKDataChannelPtr& dataChannel, const ZPKDataChannelManagerDelegatePtr& delegate,
    bool option, const ZPKDataSerializerPtr& deserializer) {
  return managerWithDataChannel(dataChannel, delegate, option, nullptr, deserializer);
}

ZPKDataChannelManagerPtr ZPKDataChannelManager::managerWithDataChannel(
    const ZPKDataChannelPtr& dataChannel, const ZPKDataChannelManagerDelegatePtr& delegate,
    const ZPKDataSerializerPtr& deserializer) {
  return managerWithDataChannel(dataChannel, delegate, false, deserializer);
}

ZPKDataChannelManagerPtr ZPKDataChannelManager::managerWithDataChannel(
    const ZPKDataChannelPtr& dataChannel, const ZPKDataChannelManagerDelegatePtr& delegate) {
  return managerWithDataChannel(dataChannel, delegate, false, nullptr,
                                ZPKDataDefaultSerializer::init());
}

ZPKDataChannelManagerPtr ZPKDataChannelManager::init() {
  return std::make_shared<ZPKDataChannelManager>(Key());
}

ZPKDataChannelManager::ZPKDataChannelManager(Key)
    : _deserializer(ZPKDataDefaultSerializer::init()) {}

ZPKDataChannelManager::~ZPKDataChannelManager() = default;

bool ZPKDataChannelManager::listen(ZPKErrorPtr* /*error*/) {
  if (started()) return false;
  const auto loop = [self = shared_from_this()] { self->receive_loop(); };
  if (ZPKdataChannelManagerReceiveUndetached()) {
    loop();
    return true;
  }
  pthread_t thread{};
  newThreadWithBlock(&thread, loop);
  if (!isThread(thread)) return false;
  pthread_detach(thread);
  return true;
}

void ZPKDataChannelManager::disconnect() {
  const ZPKDataChannelPtr channel = dataChannel();
  if (channel == nullptr) return;
  ZPKErrorPtr error;
  channel->close(&error);
}

std::string ZPKDataChannelManager::description() const {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "<%s %p>", "ZPKDataChannelManager",
                static_cast<const void*>(this));
  return text.data();
}

std::string ZPKDataChannelManager::debugDescription() const { return description(); }

ZPKDataChannelPtr ZPKDataChannelManager::dataChannel() const { return _dataChannel.load(); }

void ZPKDataChannelManager::setDataChannel(ZPKDataChannelPtr channel) {
  _dataChannel.store(std::move(channel));
}

ZPKDataChannelManagerDelegatePtr ZPKDataChannelManager::delegate() const {
  return _delegate.load().lock();
}

void ZPKDataChannelManager::setDelegate(const ZPKDataChannelManagerDelegatePtr& delegate) {
  _delegate.store(delegate);
}

ZPKDataSerializerPtr ZPKDataChannelManager::deserializer() const { return _deserializer.load(); }

bool ZPKDataChannelManager::started() const { return _started.load(std::memory_order_acquire); }

void ZPKDataChannelManager::setStarted(bool started) {
  _started.store(started, std::memory_order_release);
}

bool ZPKDataChannelManager::ZPKdataChannelManagerReceiveUndetached() const {
  return _ZPKdataChannelManagerReceiveUndetached.load(std::memory_order_relaxed);
}

void ZPKDataChannelManager::setZPKdataChannelManagerReceiveUndetached(bool undetached) {
  _ZPKdataChannelManagerReceiveUndetached.store(undetached, std::memory_order_relaxed);
}

void ZPKDataChannelManager::setDeserializer(ZPKDataSerializerPtr deserializer) {
  _deserializer.store(std::move(deserializer));
}

std::vector<ZPKDataChannelPtr> ZPKDataChannelManager::managed_dataChannels() const {
  return _managed_dataChannels.load();
}

void ZPKDataChannelManager::setManaged_dataChannels(std::vector<ZPKDataChannelPtr> channels) {
  _managed_dataChannels.store(std::move(channels));
}

void ZPKDataChannelManager::receive_loop() {
  // A delegate may release the caller's last reference.
  const auto self = shared_from_this();
  ZPINameThisThread(kLoopThreadName);
  setStarted(true);
  while (receiveOne()) {
  }
  setStarted(false);
  if (const auto delegate = delegateFor(Operation::DidDisconnect)) {
    delegate->didDisconnect(shared_from_this(), dataChannel(), nullptr);
  }
}

// Reads one time and passes the object on; false if this ends the loop. If memory runs out, the
// loop ends as if nothing had arrived: on a thread of its own, an exception would end the process.
bool ZPKDataChannelManager::receiveOne() {
  const ZPKDataPtr data = read();
  if (!shouldDeserialize(data)) return true;
  const ZPKObjectPtr message = deserialize(data);
  if (message == nullptr) return false;
  if (const auto delegate = delegateFor(Operation::DidReceiveMessage)) {
    delegate->didReceiveMessage(shared_from_this(), dataChannel(), message);
  }
  return true;
}

ZPKDataPtr ZPKDataChannelManager::read() const {
  const ZPKDataChannelPtr channel = dataChannel();
  if (channel == nullptr) return nullptr;
  try {
    ZPKErrorPtr error;
    return channel->readWithTimeout(kReadTimeout, &error);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

bool ZPKDataChannelManager::shouldDeserialize(const ZPKDataPtr& data) {
  const auto delegate = delegateFor(Operation::ShouldDeserializeData);
  return delegate == nullptr ||
         delegate->shouldDeserializeData(shared_from_this(), dataChannel(), data);
}

ZPKObjectPtr ZPKDataChannelManager::deserialize(const ZPKDataPtr& data) const {
  const ZPKDataSerializerPtr serializer = deserializer();
  try {
    return serializer == nullptr ? nullptr : serializer->deserialize(data);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

ZPKDataChannelManagerDelegatePtr ZPKDataChannelManager::delegateFor(Operation operation) const {
  auto current = delegate();
  return current != nullptr && current->implements(operation) ? current : nullptr;
}
