#pragma once

#include <functional>
#include <memory>
#include <string>

/// Runs tasks one at a time, in the order in which they were added.
///
/// A task that its caller waits for runs on that caller's thread. The others run on the queue's own
/// thread while there is one, and otherwise also on the caller's:
///
///     none --startThread--> asleep --queue--> running
///      ^                     | ^----nothing left---'
///      '----endThread--------'
///
/// Any thread may call the operations. The queue may be destroyed on any thread, also by one of its
/// own tasks: this does not wait, the tasks that are queued still run, and then the thread ends. A
/// task must not wait for another task of its queue, and must not throw.
class ZPISerialQueue {
 public:
  using Task = std::function<void()>;

  /// `label` names the queue's thread, truncated if it is too long for the system.
  explicit ZPISerialQueue(std::string label);
  ZPISerialQueue(const ZPISerialQueue&) = delete;
  ZPISerialQueue& operator=(const ZPISerialQueue&) = delete;
  ~ZPISerialQueue();

  /// Starts the thread unless it is running. False if the system cannot start a thread; it can be
  /// tried again later.
  bool startThread();

  /// Lets the thread end as soon as no task is queued. Does not wait for it; a startThread in the
  /// meantime keeps it running.
  void endThread();

  /// Queues the task and returns; without a thread the caller runs it as in runAndWait. Never
  /// starts a thread. The task and its captures are destroyed before the next task runs.
  void queue(Task task);

  /// Runs the task on the calling thread after all that were queued before it, and returns when it
  /// is done.
  void runAndWait(const Task& task);

 private:
  class State;

  const std::shared_ptr<State> _state;  // shared with the thread, which outlives the queue
};
