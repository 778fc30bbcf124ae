// Locks of the code under test are places to give way at, too. The linker directs them here, in the
// stress program only.
#include <pthread.h>

#include "Support/CallJitter.h"

extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t*);
int __real_pthread_mutex_unlock(pthread_mutex_t*);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  support::giveWayAtRandom();
  return __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  const int result = __real_pthread_mutex_unlock(mutex);
  support::giveWayAtRandom();
  return result;
}

}  // extern "C"
