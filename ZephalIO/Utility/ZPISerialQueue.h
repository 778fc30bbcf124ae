#pragma once

#include <functional>
#include <memory>
#include <string>

/// Runs tasks one at a time, in the order in which they came.
///
/// Tasks that somebody waits for run on the waiting thread. The others run on a thread of the queue
/// while it has one, and otherwise on the thread that queues them:
///
///     none --startThread--> asleep --queue--> running
///      ^                     | ^----nothing left---'
///      '----endThread--------'
///
/// Any thread may call the operations. The queue may be destroyed on any thread, also by one of its
/// own tasks: that waits for nothing, ends the thread, and what was queued before still runs. A
/// task must not wait for another task of its queue, and must not throw.
class ZPISerialQueue {
 public:
  using Task = std::function<void()>;

  /// The label names the queue's thread, cut to what the system takes.
  explicit ZPISerialQueue(std::string label);
  ZPISerialQueue(const ZPISerialQueue&) = delete;
  ZPISerialQueue& operator=(const ZPISerialQueue&) = delete;
  ~ZPISerialQueue();

  /// Starts the thread, unless there is one. False if the system has none to give: then it can be
  /// tried again.
  bool startThread();

  /// Lets the thread end as soon as nothing is queued. Waits for nothing; whoever starts it again
  /// meanwhile keeps it.
  void endThread();

  /// Queues the task and returns; without a thread the caller runs it as in runAndWait. No thread
  /// is started. The task and what it holds are destroyed before the next task runs.
  void queue(Task task);

  /// Runs the task after all that were queued before it, and returns when it is done.
  void runAndWait(const Task& task);

 private:
  class State;

  const std::shared_ptr<State> _state;  // shared with the thread, which outlives the queue
};
