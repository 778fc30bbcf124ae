#include "Utility/ZPISerialQueue.h"

#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>
#include <utility>

#include "Utility/ZPIBlockedSignals.h"
#include "Utility/ZPIThreadHelpers.h"
#include "Utility/ZPIThreadName.h"

namespace {

// Longer than the gaps in a running conversation, so that it gets by with one thread; starting one
// anew after a longer gap costs nothing that shows.
constexpr std::chrono::milliseconds kIdleTime{100};

// All signals but those that a fault raises on the thread itself: blocked, they would bypass the
// handlers of the host program.
sigset_t signalsOfOthers() {
  sigset_t signals;
  ::sigfillset(&signals);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP}) ::sigdelset(&signals, fault);
  return signals;
}

}  // namespace

class ZPISerialQueue::State : public std::enable_shared_from_this<State> {
 public:
  explicit State(std::string label) : _label(std::move(label)) {}

  void queue(Task task) {
    std::unique_lock lock(_mutex);
    if (!_hasWorker) _hasWorker = startWorker();
    if (!_hasWorker) {
      lock.unlock();
      runAndWait(task);
      return;
    }
    _waiting.push_back(std::move(task));
    lock.unlock();
    _changed.notify_all();
  }

  void runAndWait(const Task& task) {
    const Turn turn(*this);
    task();
  }

  void noteQueueIsGone() {
    const std::lock_guard guard(_mutex);
    _queueIsGone = true;
    _changed.notify_all();
  }

 private:
  // A caller's turn: waits for it in the row of tasks, where an empty one holds the caller's place.
  class Turn {
   public:
    explicit Turn(State& state) : _state(state) {
      std::unique_lock lock(_state._mutex);
      const auto place = _state._waiting.emplace(_state._waiting.end());
      _state._changed.wait(lock,
                           [&] { return !_state._isBusy && _state._waiting.begin() == place; });
      _state._waiting.erase(place);
      _state._isBusy = true;
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn() {
      {
        const std::lock_guard guard(_state._mutex);
        _state._isBusy = false;
      }
      _state._changed.notify_all();
    }

   private:
    State& _state;
  };

  bool startWorker() {
    const ZPIBlockedSignals blocked(signalsOfOthers());
    pthread_t thread{};
    newThreadWithBlock(&thread, [self = shared_from_this()] { self->work(); });
    if (!isThread(thread)) return false;
    pthread_detach(thread);
    return true;
  }

  void work() {
    ZPINameThisThread(_label);
    std::unique_lock lock(_mutex);
    while (waitForTask(lock)) {
      Task task = std::move(_waiting.front());
      _waiting.pop_front();
      _isBusy = true;
      lock.unlock();
      task();
      task = nullptr;  // what the task held may destroy the queue here
      lock.lock();
      _isBusy = false;
      _changed.notify_all();
    }
    _hasWorker = false;
  }

  // Whether there is a task to run; if not, the thread is to end.
  bool waitForTask(std::unique_lock<std::mutex>& lock) {
    while (_isBusy || _waiting.empty() || _waiting.front() == nullptr) {
      if (_queueIsGone && _waiting.empty()) return false;
      const bool isIdle = _changed.wait_for(lock, kIdleTime) == std::cv_status::timeout;
      if (isIdle && _waiting.empty()) return false;
    }
    return true;
  }

  const std::string _label;
  std::mutex _mutex;  // guards the fields below; never held while a task runs
  std::condition_variable _changed;
  std::list<Task> _waiting;
  bool _isBusy = false;  // a task runs, on whatever thread
  bool _hasWorker = false;
  bool _queueIsGone = false;
};

ZPISerialQueue::ZPISerialQueue(std::string label)
    : _state(std::make_shared<State>(std::move(label))) {}

ZPISerialQueue::~ZPISerialQueue() { _state->noteQueueIsGone(); }

void ZPISerialQueue::queue(Task task) {
  const std::shared_ptr<State> state = _state;  // the task may destroy this queue
  state->queue(std::move(task));
}

void ZPISerialQueue::runAndWait(const Task& task) {
  const std::shared_ptr<State> state = _state;
  state->runAndWait(task);
}
