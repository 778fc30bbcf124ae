#include "Utility/ZPISerialQueue.h"

#include <sched.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <utility>

#include "Utility/ZPIBlockedSignals.h"
#include "Utility/ZPIThreadHelpers.h"
#include "Utility/ZPIThreadName.h"

namespace {

// A thread that was idle for less than this is in the middle of busy traffic.
constexpr std::chrono::microseconds kShortPause{100};

// All signals except those that a fault raises on the thread itself: if these were blocked, the
// handlers of the host program would not run.
sigset_t allSignalsButFaults() {
  sigset_t signals;
  ::sigfillset(&signals);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP}) ::sigdelset(&signals, fault);
  return signals;
}

}  // namespace

class ZPISerialQueue::State : public std::enable_shared_from_this<State> {
 public:
  explicit State(std::string label) : _label(std::move(label)) {}

  bool startThread() {
    const std::lock_guard guard(_mutex);
    _isEnding = false;
    if (!_hasThread) _hasThread = makeThread();
    return _hasThread;
  }

  void endThread() {
    const std::lock_guard guard(_mutex);
    _isEnding = true;
    _threadsTurn.notify_one();
  }

  void queue(Task task) {
    std::unique_lock lock(_mutex);
    if (!_hasThread || _isEnding) {
      lock.unlock();
      runAndWait(task);
      return;
    }
    append(std::make_unique<Waiting>(std::move(task)).release());
    if (!_isBusy) wakeNext(lock);
  }

  void runAndWait(const Task& task) {
    const CallersTurn turn(*this);
    task();
  }

 private:
  // What waits for its turn: a task for the thread, or a caller, whose task is empty.
  struct Waiting {
    Waiting() = default;
    explicit Waiting(Task itsTask) : task(std::move(itsTask)) {}

    Task task;
    Waiting* next = nullptr;
  };

  // The turn of a caller that runs its own task. It allocates nothing, so that a file can be closed
  // without memory.
  class CallersTurn {
   public:
    explicit CallersTurn(State& state) : _state(state) {
      std::unique_lock lock(_state._mutex);
      Waiting place;
      _state.append(&place);
      _state._callersTurn.wait(lock, [&] { return !_state._isBusy && _state._first == &place; });
      _state.takeFirst();
      _state._isBusy = true;
    }
    CallersTurn(const CallersTurn&) = delete;
    CallersTurn& operator=(const CallersTurn&) = delete;
    ~CallersTurn() {
      std::unique_lock lock(_state._mutex);
      _state._isBusy = false;
      _state.wakeNext(lock);
    }

   private:
    State& _state;
  };

  void append(Waiting* waiting) {
    *_end = waiting;
    _end = &waiting->next;
  }

  Waiting* takeFirst() {
    Waiting* const first = _first;
    _first = first->next;
    if (_first == nullptr) _end = &_first;
    return first;
  }

  // Wakes the thread whose turn is next, after releasing the lock, which that thread needs.
  void wakeNext(std::unique_lock<std::mutex>& lock) {
    const bool isForThread = _first == nullptr ? _isEnding : _first->task != nullptr;
    lock.unlock();
    if (isForThread) {
      _threadsTurn.notify_one();
    } else {
      _callersTurn.notify_all();
    }
  }

  bool makeThread() {
    const ZPIBlockedSignals blocked(allSignalsButFaults());
    pthread_t thread{};
    newThreadWithBlock(&thread, [self = shared_from_this()] { self->runTasks(); });
    if (!isThread(thread)) return false;
    pthread_detach(thread);
    return true;
  }

  void runTasks() {
    ZPINameThisThread(_label);
    std::unique_lock lock(_mutex);
    while (waitForTask(lock)) {
      std::unique_ptr<Waiting> waiting(takeFirst());
      _isBusy = true;
      lock.unlock();
      waiting->task();
      waiting.reset();  // destroying the task's captures may destroy the queue here
      lock.lock();
      _isBusy = false;
      if (_first != nullptr && _first->task == nullptr) _callersTurn.notify_all();
    }
    _hasThread = false;
  }

  bool hasTask() const { return !_isBusy && _first != nullptr && _first->task != nullptr; }

  // Waits for a task to run. Returns false if the thread must end instead.
  bool waitForTask(std::unique_lock<std::mutex>& lock) {
    if (!hasTask() && _lastPause < kShortPause) letOthersRun(lock);
    if (hasTask()) return true;
    const auto start = std::chrono::steady_clock::now();
    _threadsTurn.wait(lock, [this] { return hasTask() || (_isEnding && _first == nullptr); });
    _lastPause = std::chrono::steady_clock::now() - start;
    return hasTask();
  }

  // Lets other threads run before this one goes to sleep. In busy traffic they add the next task in
  // the meantime, and then need not wake this thread for it.
  static void letOthersRun(std::unique_lock<std::mutex>& lock) {
    lock.unlock();
    ::sched_yield();
    lock.lock();
  }

  const std::string _label;
  std::mutex _mutex;  // guards the fields below; never held while a task runs
  std::condition_variable _threadsTurn;
  std::condition_variable _callersTurn;
  Waiting* _first = nullptr;  // in the order of their turns
  Waiting** _end = &_first;
  bool _isBusy = false;  // a task is running, on any thread
  bool _hasThread = false;
  bool _isEnding = false;  // the thread must end once nothing is queued, or there is none
  std::chrono::steady_clock::duration _lastPause = kShortPause;  // the thread's own
};

ZPISerialQueue::ZPISerialQueue(std::string label)
    : _state(std::make_shared<State>(std::move(label))) {}

ZPISerialQueue::~ZPISerialQueue() { endThread(); }

bool ZPISerialQueue::startThread() { return _state->startThread(); }

void ZPISerialQueue::endThread() { _state->endThread(); }

void ZPISerialQueue::queue(Task task) {
  const std::shared_ptr<State> state = _state;  // the task may destroy this queue
  state->queue(std::move(task));
}

void ZPISerialQueue::runAndWait(const Task& task) {
  const std::shared_ptr<State> state = _state;
  state->runAndWait(task);
}
