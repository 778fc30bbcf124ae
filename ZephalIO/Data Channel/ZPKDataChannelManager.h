/// @file
/// Reads objects from a channel and passes them to a delegate.
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
/// A shared ZPKDataChannelManager.
using ZPKDataChannelManagerPtr = std::shared_ptr<ZPKDataChannelManager>;

/// Gets the objects and events of a ZPKDataChannelManager. All operations are optional: override
/// the ones you need.
///
/// The thread of the manager's loop makes all calls, one at a time, and does not read during a
/// call. In any of them the manager, its delegate and its channel may be replaced, disconnected or
/// released. An operation must not throw.
class ZPK_EXPORT ZPKDataChannelManagerDelegate {
 public:
  /// The operations, as implements names them.
  enum class Operation { ShouldDeserializeData, DidReceiveMessage, DidDisconnect };

  virtual ~ZPKDataChannelManagerDelegate();

  /// Whether the delegate implements an operation. The manager asks before each call, and does not
  /// call if the answer is false. Override it only in a delegate that passes calls on and learns at
  /// run time which of them are needed.
  virtual bool implements(Operation operation) const;

  /// Whether to deserialize the result of a read, which may be null or empty. False drops it, and
  /// the manager reads again. If a delegate keeps returning false for the null of a dead channel,
  /// the loop spins.
  virtual bool shouldDeserializeData(const ZPKDataChannelManagerPtr& manager,
                                     const ZPKDataChannelPtr& dataChannel, const ZPKDataPtr& data);

  /// An object arrived; never null.
  virtual void didReceiveMessage(const ZPKDataChannelManagerPtr& manager,
                                 const ZPKDataChannelPtr& dataChannel, const ZPKObjectPtr& message);

  /// The loop ended, for any reason. `started` is already false, so the delegate may call listen
  /// again from here. The error is always null.
  virtual void didDisconnect(const ZPKDataChannelManagerPtr& manager,
                             const ZPKDataChannelPtr& dataChannel, const ZPKErrorPtr& error);
};

/// A shared delegate. The manager holds it weakly.
using ZPKDataChannelManagerDelegatePtr = std::shared_ptr<ZPKDataChannelManagerDelegate>;

/// Turns a channel into a stream of objects for a delegate: it reads in a loop, deserializes the
/// result of each read and passes the object on.
///
/// Each read must return exactly one serialized object. For a byte stream this needs framing below
/// the manager: createPacketAggregatorTransformer for the reads of a createChannelTransformer, and
/// createPacketPrependTransformer for the writes of the peer.
///
/// The loop ends only when the result of a read does not deserialize: after a closed or failed
/// channel, 1000 seconds without a byte, damaged data, or the empty data that stands for an empty
/// or incomplete packet. For packets, put createPassiveChannel on top, which keeps reading. The
/// delegate does not learn why the loop ended; only the log line of the serializer shows it.
///
/// The caller opens the channel. The manager holds it strongly and the delegate weakly: if the
/// delegate is gone, the loop continues and drops what it reads. The thread of a loop holds the
/// manager while it runs, so releasing a manager does not stop it; disconnect does.
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
  /// A manager of a channel that the caller has opened. With `option`, listen runs the loop on its
  /// caller's thread. A null deserializer is legal; the loop then ends after its first read.
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

  /// Starts the loop on a detached thread of its own and returns immediately. With
  /// ZPKdataChannelManagerReceiveUndetached the loop runs on the calling thread, which gets the
  /// loop's name and keeps it, and listen returns when the loop has ended.
  ///
  /// False while a loop runs, and if the system cannot start a thread; true otherwise. The slot is
  /// never touched. The loop itself sets `started`, so two calls in quick succession may both start
  /// a loop, and few channels allow two threads to read them. So call it only one time, and again
  /// after didDisconnect. A loop that didDisconnect starts on the same thread runs within that
  /// call.
  bool listen(ZPKErrorPtr* error = nullptr);

  /// Runs the loop on the calling thread: reads and passes objects on until the result of a read
  /// does not deserialize, then tells the delegate and returns. It names the thread, which keeps
  /// that name, and holds the manager. Unlike listen, it does not check whether a loop runs.
  void receive_loop();

  /// Closes the channel, ignores a failure of that, and returns without waiting. The loop then ends
  /// by itself, at its next read at the latest, and the delegate is told.
  ///
  /// On a thread other than the loop's, the channel must allow a close during a read. A base
  /// channel does: over a socket the loop ends immediately, over a serial port with the device's
  /// next byte, or after the read's 1000 seconds. Decorators on a base channel do not. With an
  /// active channel directly on the transport, below all others, the loop always ends within a
  /// fraction of a second. On the loop's own thread, in a call to the delegate, any channel allows
  /// it.
  void disconnect();

  /// "<ZPKDataChannelManager 0x...>", with the address.
  std::string description() const;
  /// The same as description.
  std::string debugDescription() const;

  /// @name Properties
  /// The loop reads each one anew whenever it needs it.
  /// @{

  /// The channel that the loop reads; null without one.
  ZPKDataChannelPtr dataChannel() const;
  /// Replaces the channel and closes neither. A running loop reads the new one from its next read
  /// on. Null ends the loop then, unless the delegate declines to deserialize.
  void setDataChannel(ZPKDataChannelPtr channel);
  /// Held weakly: null when nobody else holds it any more.
  ZPKDataChannelManagerDelegatePtr delegate() const;
  /// Replaces the delegate, which the caller keeps alive; null is legal, and then objects are
  /// dropped.
  void setDelegate(const ZPKDataChannelManagerDelegatePtr& delegate);
  /// Whether listen runs the loop on its caller's thread; false at first.
  bool ZPKdataChannelManagerReceiveUndetached() const;
  /// Sets where the next listen runs its loop.
  void setZPKdataChannelManagerReceiveUndetached(bool undetached);
  /// The serializer that turns the result of each read into an object.
  ZPKDataSerializerPtr deserializer() const;
  /// Replaces the serializer from the next read on. With null the loop ends after that read.
  void setDeserializer(ZPKDataSerializerPtr deserializer);
  /// Whether a loop runs.
  bool started() const;
  /// For the manager's own use: sets what `started` returns and starts or ends nothing. After true,
  /// listen fails.
  void setStarted(bool started);
  /// For the caller's own use; the manager does not look at it.
  std::vector<ZPKDataChannelPtr> managed_dataChannels() const;
  /// Replaces the list that managed_dataChannels returns.
  void setManaged_dataChannels(std::vector<ZPKDataChannelPtr> channels);

  /// @}

 private:
  bool receiveOne();
  ZPKDataPtr read() const;
  bool shouldDeserialize(const ZPKDataPtr& data);
  ZPKObjectPtr deserialize(const ZPKDataPtr& data) const;
  ZPKDataChannelManagerDelegatePtr delegateFor(
      ZPKDataChannelManagerDelegate::Operation operation) const;

  std::atomic<bool> _ZPKdataChannelManagerReceiveUndetached = false;
  // Set and cleared only by the loop. A thread that sees it cleared also sees everything that the
  // loop did.
  std::atomic<bool> _started = false;
  ZPKAtomic<ZPKDataChannelPtr> _dataChannel;
  ZPKAtomic<std::weak_ptr<ZPKDataChannelManagerDelegate>> _delegate;
  ZPKAtomic<ZPKDataSerializerPtr> _deserializer;
  ZPKAtomic<std::vector<ZPKDataChannelPtr>> _managed_dataChannels;
};
