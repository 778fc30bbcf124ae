#include "Utility/ZPIEventLoop.h"

#include <utility>

ZPIEventLoopPtr ZPIEventLoop::current() {
  thread_local const ZPIEventLoopPtr loop = std::make_shared<ZPIEventLoop>(Key());
  return loop;
}

void ZPIEventLoop::perform(Task task) {
  const std::lock_guard guard(_mutex);
  _tasks.push_back(std::move(task));
  _changed.notify_one();
}

ZPIEventLoop::Source ZPIEventLoop::attachSource() {
  // Weak: a task in the queue may hold the source, and would otherwise keep its own loop alive.
  const std::weak_ptr<ZPIEventLoop> weakLoop = weak_from_this();
  {
    const std::lock_guard guard(_mutex);
    ++_sourceCount;
  }
  return Source(this, [weakLoop](void*) {
    if (const ZPIEventLoopPtr loop = weakLoop.lock()) loop->detachSource();
  });
}

void ZPIEventLoop::run() {
  std::unique_lock lock(_mutex);
  while (!_isStopped && (!_tasks.empty() || _sourceCount > 0)) {
    if (_tasks.empty()) {
      _changed.wait(lock);
      continue;
    }
    Task task = std::move(_tasks.front());
    _tasks.pop_front();
    lock.unlock();
    task();
    task = nullptr;  // without the lock: the destructors of its captures may call the loop
    lock.lock();
  }
  _isStopped = false;
}

void ZPIEventLoop::stop() {
  const std::lock_guard guard(_mutex);
  _isStopped = true;
  _changed.notify_one();
}

void ZPIEventLoop::detachSource() {
  const std::lock_guard guard(_mutex);
  --_sourceCount;
  _changed.notify_one();
}
