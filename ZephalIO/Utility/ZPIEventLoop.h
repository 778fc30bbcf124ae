#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

class ZPIEventLoop;
using ZPIEventLoopPtr = std::shared_ptr<ZPIEventLoop>;

/// The event loop of a thread: it runs the tasks that any thread gives it, one after the other.
///
/// Work is attached as a task, or as a source: a promise that more tasks will come. `run` continues
/// while there is a task to run or a source to wait for.
///
///     auto loop = ZPIEventLoop::current();
///     auto source = loop->attachSource();           // run waits from here on
///     startDevice([loop, source](auto event) { loop->perform([event] { handle(event); }); });
///     loop->run();  // returns when the device releases the source, or on stop
///
/// Any thread may call any operation except `run`, which only the loop's thread calls. No task runs
/// while the loop holds its lock.
///
/// Only runBlockOnNewThreadWithRunLoop uses this class, and nothing in the library calls that.
class ZPIEventLoop final : public std::enable_shared_from_this<ZPIEventLoop> {
  struct Key {
    explicit Key() = default;
  };

 public:
  using Task = std::function<void()>;
  /// Releasing the last copy detaches the source. A source does not keep the loop alive.
  using Source = std::shared_ptr<void>;

  /// The calling thread's loop, created by the first call. The thread releases it when it ends; the
  /// last release destroys the loop and the tasks that were not run.
  static ZPIEventLoopPtr current();

  explicit ZPIEventLoop(Key) {}
  ZPIEventLoop(const ZPIEventLoop&) = delete;
  ZPIEventLoop& operator=(const ZPIEventLoop&) = delete;

  /// Queues `task`, which runs on the loop's thread after the tasks queued before it, and is
  /// released there as soon as it has run.
  void perform(Task task);

  /// Keeps `run` waiting until the source is released.
  Source attachSource();

  /// Runs tasks until the loop is stopped or has nothing left to wait for. It can be run again.
  void run();

  /// Ends `run` after the current task; the tasks after it wait for the next run. If the loop is
  /// not running, its next run ends immediately.
  void stop();

 private:
  void detachSource();

  std::mutex _mutex;  // guards the fields below
  std::condition_variable _changed;
  std::deque<Task> _tasks;
  size_t _sourceCount = 0;
  bool _isStopped = false;
};
