#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Data Channel/ZPKDataChannel.h"
#include "Data Channel/ZPKDataSerializer.h"
#include "Utility/ZPKAtomic.h"
#include "Utility/ZPKExport.h"
#include "Utility/ZPKObject.h"

class ZPKDataChannelManager;
using ZPKDataChannelManagerPtr = std::shared_ptr<ZPKDataChannelManager>;

/// What a ZPKDataChannelManager tells. All operations are optional: override those that matter.
///
/// All calls come on the thread of the manager's loop, one at a time, and while one runs no read is
/// made. The manager, its delegate and its channel may be replaced, disconnected or let go of in
/// any of them. An operation must not throw.
class ZPK_EXPORT ZPKDataChannelManagerDelegate {
 public:
  enum class Operation { ShouldDeserializeData, DidReceiveMessage, DidDisconnect };

  virtual ~ZPKDataChannelManagerDelegate();

  /// Whether the delegate takes an operation. The manager asks before each call and makes none if
  /// the answer is false. For a delegate that passes calls on and knows only while it runs which of
  /// them somebody wants; any other leaves it alone.
  virtual bool implements(Operation operation) const;

  /// Whether the result of a read, which may be null or empty, is to be deserialized; false drops
  /// it, and the manager reads again. A delegate that goes on to say false to the null of a dead
  /// channel lets the loop spin.
  virtual bool shouldDeserializeData(const ZPKDataChannelManagerPtr& manager,
                                     const ZPKDataChannelPtr& dataChannel, const ZPKDataPtr& data);

  /// An object arrived; never null.
  virtual void didReceiveMessage(const ZPKDataChannelManagerPtr& manager,
                                 const ZPKDataChannelPtr& dataChannel, const ZPKObjectPtr& message);

  /// The loop ended, for whatever reason; `started` is false already, so that the delegate may
  /// listen again from here. The error is always null.
  virtual void didDisconnect(const ZPKDataChannelManagerPtr& manager,
                             const ZPKDataChannelPtr& dataChannel, const ZPKErrorPtr& error);
};

using ZPKDataChannelManagerDelegatePtr = std::shared_ptr<ZPKDataChannelManagerDelegate>;

/// Turns a channel into a stream of objects for a delegate: it reads in a loop, deserializes each
/// read and hands the object on.
///
/// Each read is taken to hold exactly one serialized object. A byte stream needs framing below the
/// manager for that: createPacketAggregatorTransformer for the reads of a createChannelTransformer,
/// and createPacketPrependTransformer for the writes of the other end.
///
/// What ends the loop is a read that does not deserialize, and nothing else: a closed or failed
/// channel, 1000 seconds without a byte, damaged data, or the empty data that a packet gives which
/// is not yet whole, or empty. For packets put createPassiveChannel on top, which reads on. Why the
/// loop ended, nobody is told; the log line of the serializer is the only trace.
///
/// The channel is the caller's to open. The manager holds it strongly, its delegate weakly: with a
/// delegate that is gone the loop goes on and drops what it reads. The thread of a loop holds the
/// manager for as long as it runs, so that letting go of a manager does not stop it; disconnect
/// does.
///
///     class Printer final : public ZPKDataChannelManagerDelegate {
///       void didReceiveMessage(const ZPKDataChannelManagerPtr&, const ZPKDataChannelPtr&,
///                              const ZPKObjectPtr& message) override {
///         if (const auto reading = ZPKObjectCast<ZPKDictionary>(message)) show(*reading);
///       }
///     };
///     const auto printer = std::make_shared<Printer>();
///     const auto manager = ZPKDataChannelManager::managerWithDataChannel(channel, printer);
///     manager->listen();
///
/// All operations and accessors may be called on any thread.
class ZPK_EXPORT ZPKDataChannelManager final
    : public std::enable_shared_from_this<ZPKDataChannelManager> {
  struct Key {
    explicit Key() = default;
  };

 public:
  /// A manager of an open channel. With `option`, listen runs the loop on its caller's thread. A
  /// null deserializer is legal; the loop then ends after its first read.
  ///
  /// Null for a null channel, then for a null delegate; domain "zephal-communication", code 9.
  static ZPKDataChannelManagerPtr managerWithDataChannel(
      const ZPKDataChannelPtr& dataChannel, const ZPKDataChannelManagerDelegatePtr& delegate,
      bool option, ZPKErrorPtr* error, const ZPKDataSerializerPtr& deserializer);
  /// The same, without an error slot.
  static ZPKDataChannelManagerPtr managerWithDataChannel(
      const ZPKDataChannelPtr& dataChannel, const ZPKDataChannelManagerDelegatePtr& delegate,
      bool option, const ZPKDataSerializerPtr& deserializer);
  /// The same, with a thread of the manager's own.
  static ZPKDataChannelManagerPtr managerWithDataChannel(
      const ZPKDataChannelPtr& dataChannel, const ZPKDataChannelManagerDelegatePtr& delegate,
      const ZPKDataSerializerPtr& deserializer);
  /// The same, with a ZPKDataDefaultSerializer.
  static ZPKDataChannelManagerPtr managerWithDataChannel(
      const ZPKDataChannelPtr& dataChannel, const ZPKDataChannelManagerDelegatePtr& delegate);

  /// A manager without a channel and a delegate, with a ZPKDataDefaultSerializer.
  static ZPKDataChannelManagerPtr init();

  explicit ZPKDataChannelManager(Key);
  ZPKDataChannelManager(const ZPKDataChannelManager&) = delete;
  ZPKDataChannelManager& operator=(const ZPKDataChannelManager&) = delete;
  ~ZPKDataChannelManager();

  /// Starts the loop on a detached thread of its own and returns at once; with
  /// ZPKdataChannelManagerReceiveUndetached it runs on this thread, which is named after it and
  /// stays so, and listen returns when the loop has ended.
  ///
  /// False while a loop runs, and if the system has no thread to give; true otherwise. The slot is
  /// never touched. `started` is set by the loop itself: of two calls in quick succession both may
  /// start one, and few channels allow that two threads read them. So call it once, and again when
  /// the delegate was told of the end. A loop that is started from there on the same thread runs
  /// within that call.
  bool listen(ZPKErrorPtr* error = nullptr);

  /// The loop itself, on the calling thread: reads and hands on until a read does not deserialize,
  /// then tells the delegate and returns. It names the thread, which keeps that name, and holds the
  /// manager. Whether another loop runs it does not ask; listen does.
  void receive_loop();

  /// Closes the channel, whatever comes of it, and returns without waiting: the loop then ends by
  /// itself, at its next read at the latest, and the delegate is told.
  ///
  /// On another thread than the loop's, the channel must allow a close during a read. A base
  /// channel does: over a socket the loop ends at once, over a serial port with the device's next
  /// byte, or when the read's 1000 seconds are up. Decorators on a base channel do not. With an
  /// active channel on the transport, below whatever else there is, the loop ends within a fraction
  /// of a second in every case. On the loop's own thread, in a call to the delegate, any channel
  /// will do.
  void disconnect();

  /// "<ZPKDataChannelManager 0x...>", with the address.
  std::string description() const;
  std::string debugDescription() const;

  // Properties, each read afresh by the loop whenever it needs it.

  ZPKDataChannelPtr dataChannel() const;
  void setDataChannel(ZPKDataChannelPtr channel);
  /// Held weakly: null once nobody else holds it.
  ZPKDataChannelManagerDelegatePtr delegate() const;
  void setDelegate(const ZPKDataChannelManagerDelegatePtr& delegate);
  bool ZPKdataChannelManagerReceiveUndetached() const;
  void setZPKdataChannelManagerReceiveUndetached(bool undetached);
  ZPKDataSerializerPtr deserializer() const;
  void setDeserializer(ZPKDataSerializerPtr deserializer);
  /// Whether a loop runs.
  bool started() const;
  void setStarted(bool started);
  /// The caller's own to use; the manager does not look at it.
  std::vector<ZPKDataChannelPtr> managed_dataChannels() const;
  void setManaged_dataChannels(std::vector<ZPKDataChannelPtr> channels);

 private:
  bool receiveOne();
  ZPKDataPtr read() const;
  bool shouldDeserialize(const ZPKDataPtr& data);
  ZPKObjectPtr deserialize(const ZPKDataPtr& data) const;
  ZPKDataChannelManagerDelegatePtr delegateFor(
      ZPKDataChannelManagerDelegate::Operation operation) const;

  std::atomic<bool> _ZPKdataChannelManagerReceiveUndetached = false;
  // Set and cleared by the loop alone. Who sees it cleared sees all that the loop did.
  std::atomic<bool> _started = false;
  ZPKAtomic<ZPKDataChannelPtr> _dataChannel;
  ZPKAtomic<std::weak_ptr<ZPKDataChannelManagerDelegate>> _delegate;
  ZPKAtomic<ZPKDataSerializerPtr> _deserializer;
  ZPKAtomic<std::vector<ZPKDataChannelPtr>> _managed_dataChannels;
};
