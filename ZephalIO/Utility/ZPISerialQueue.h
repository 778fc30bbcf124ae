#pragma once

#include <functional>
#include <memory>
#include <string>

/// Runs tasks one at a time, in the order in which they came.
///
/// Tasks that somebody waits for run on the waiting thread. The others run on a thread of the
/// queue, which exists only while it is needed:
///
///     none --queue--> running --nothing left--> idle --a tenth of a second--> none
///                        ^--------queue----------'
///
/// Any thread may call the operations. The queue may be destroyed on any thread, also by one of its
/// own tasks: that waits for nothing, and what was queued before still runs. A task must not wait
/// for another task of its queue, and must not throw.
class ZPISerialQueue {
 public:
  using Task = std::function<void()>;

  /// The label names the queue's thread, cut to what the system takes.
  explicit ZPISerialQueue(std::string label);
  ZPISerialQueue(const ZPISerialQueue&) = delete;
  ZPISerialQueue& operator=(const ZPISerialQueue&) = delete;
  ~ZPISerialQueue();

  /// Queues the task and returns. If the system has no thread to give, the caller runs the task as
  /// in runAndWait. The task and what it holds are destroyed before the next task runs.
  void queue(Task task);

  /// Runs the task after all that were queued before it, and returns when it is done.
  void runAndWait(const Task& task);

 private:
  class State;

  const std::shared_ptr<State> _state;  // shared with the thread, which outlives the queue
};
