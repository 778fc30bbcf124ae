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
/// Work is attached as a task, or as a source: a promise that tasks are still to come. `run` goes
/// on for as long as there is a task to run or a source to wait for.
///
///     auto loop = ZPIEventLoop::current();
///     auto source = loop->attachSource();           // run waits from here on
///     startDevice([loop, source](auto event) { loop->perform([event] { handle(event); }); });
///     loop->run();                                  // returns when the device lets go, or on stop
///
/// All operations except `run` may be called on any thread; none is called back with the lock held.
///
/// Only runBlockOnNewThreadWithRunLoop uses it, which nothing in the library calls.
class ZPIEventLoop final : public std::enable_shared_from_this<ZPIEventLoop> {
  struct Key {
    explicit Key() = default;
  };

 public:
  using Task = std::function<void()>;
  /// Letting go of the last copy detaches the source. It does not keep the loop alive.
  using Source = std::shared_ptr<void>;

  /// The calling thread's loop, made at the first call. It goes with the thread unless somebody
  /// else holds it, and tasks that were not run go with it.
  static ZPIEventLoopPtr current();

  explicit ZPIEventLoop(Key) {}
  ZPIEventLoop(const ZPIEventLoop&) = delete;
  ZPIEventLoop& operator=(const ZPIEventLoop&) = delete;

  /// Has `task` run on the loop's thread, after those that were given before it. A task is released
  /// there too, as soon as it has run.
  void perform(Task task);

  /// Keeps `run` waiting until the source is let go.
  Source attachSource();

  /// Runs tasks until the loop is stopped or has nothing left to wait for. It can be run again.
  void run();

  /// Ends `run` after the task that is running; those behind it wait for the next run. Ends the
  /// next run at once if none is going on.
  void stop();

 private:
  void detachSource();

  std::mutex _mutex;  // guards all that follows
  std::condition_variable _changed;
  std::deque<Task> _tasks;
  size_t _sourceCount = 0;
  bool _isStopped = false;
};
