#include "Utility/ZPIThreadHelpers.h"

#include <sys/time.h>

#include <memory>
#include <mutex>
#include <utility>

#include "Utility/ZPIEventLoop.h"
#include "Utility/ZPIWallClockDeadline.h"
#include "Utility/ZPKConstants.h"

namespace {

using Block = std::function<void()>;

bool isPast(const timespec& deadline) {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  if (now.tv_sec != deadline.tv_sec) return now.tv_sec > deadline.tv_sec;
  return now.tv_usec * 1000 >= deadline.tv_nsec;
}

// What the two sides of a set-up share; either may release it first.
class SetUp {
 public:
  SetUp() { buildConditionObjects(&_mutex, &_condition); }
  SetUp(const SetUp&) = delete;
  SetUp& operator=(const SetUp&) = delete;
  ~SetUp() { destroyConditionObjects(&_mutex, &_condition); }

  void finish(bool result) {
    _result = result;  // no lock: it is not read before `_done` is set
    const ZPIMutexHold hold(&_mutex);
    _done = true;
    pthread_cond_signal(&_condition);
  }

  bool waitForResult(double timeout) {
    const ZPIMutexHold hold(&_mutex);
    if (timeout == ZEPHAL_COMMUNICATION_TIME_FOREVER) {
      while (!_done) pthread_cond_wait(&_condition, &_mutex);
    } else {
      const timespec deadline = ZPIWallClockDeadline(timeout);
      while (!_done && !isPast(deadline)) {
        pthread_cond_timedwait(&_condition, &_mutex, &deadline);
      }
    }
    return _done && _result;
  }

 private:
  pthread_mutex_t _mutex;
  pthread_cond_t _condition;
  bool _done = false;  // guarded by `_mutex`
  bool _result = false;
};

}  // namespace

void newThreadWithBlock(pthread_t* thread, std::function<void()> block) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setscope(&attributes, PTHREAD_SCOPE_SYSTEM);
  auto copy = std::make_unique<Block>(std::move(block));
  if (pthread_create(thread, &attributes, block_start__, copy.get()) == 0) {
    static_cast<void>(copy.release());  // now owned by the thread
  } else {
    *thread = pthread_t();
  }
}

void* block_start__(void* block) {
  static std::once_flag once;
  static pthread_key_t block_key;
  std::call_once(once, [] { pthread_key_create(&block_key, block_dispose); });
  // The key's destructor releases the copy, also after pthread_exit and a cancellation.
  pthread_setspecific(block_key, block);
  (*static_cast<Block*>(block))();
  return nullptr;
}

void block_dispose(void* block) { delete static_cast<Block*>(block); }

void buildConditionObjects(pthread_mutex_t* mutex, pthread_cond_t* condition) {
  pthread_condattr_t conditionAttributes;
  pthread_mutexattr_t mutexAttributes;
  pthread_condattr_init(&conditionAttributes);
  pthread_mutexattr_init(&mutexAttributes);
  pthread_cond_init(condition, &conditionAttributes);
  pthread_mutex_init(mutex, &mutexAttributes);
  pthread_condattr_destroy(&conditionAttributes);
  pthread_mutexattr_destroy(&mutexAttributes);
}

void destroyConditionObjects(pthread_mutex_t* mutex, pthread_cond_t* condition) {
  pthread_mutex_destroy(mutex);
  pthread_cond_destroy(condition);
}

void buildMutexObjects(pthread_mutex_t* mutex) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutex_init(mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

void destroyMutexObjects(pthread_mutex_t* mutex) { pthread_mutex_destroy(mutex); }

bool runBlockOnNewThreadWithRunLoop(std::function<bool()> block, double timeout) {
  const auto setUp = std::make_shared<SetUp>();
  pthread_t thread{};
  newThreadWithBlock(&thread, [setUp, block = std::move(block)] {
    const bool result = block();
    setUp->finish(result);
    if (result) ZPIEventLoop::current()->run();
  });
  if (!isThread(thread)) return false;
  pthread_detach(thread);
  return setUp->waitForResult(timeout);
}
