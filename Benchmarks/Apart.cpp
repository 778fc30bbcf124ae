#include "Apart.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

void runApart(const std::function<void()>& work) {
  const pid_t process = ::fork();
  if (process < 0) std::exit(1);
  if (process == 0) {
    work();
    ::_exit(0);
  }
  int status = 0;
  if (::waitpid(process, &status, 0) < 0 || status != 0) std::exit(1);
}
