#include "Contestant.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "Measure.h"

Contestant::Contestant(const Preparation& prepare) {
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, _ends.data()) != 0) std::exit(1);
  _process = ::fork();
  if (_process < 0) std::exit(1);
  if (_process == 0) work(prepare);
  ::close(_ends[1]);
}

Contestant::~Contestant() {
  ::kill(_process, SIGKILL);
  ::waitpid(_process, nullptr, 0);
  ::close(_ends[0]);
}

double Contestant::run() const {
  double seconds = 0;
  if (::send(_ends[0], "", 1, MSG_NOSIGNAL) != 1) std::exit(1);
  if (::recv(_ends[0], &seconds, sizeof seconds, MSG_WAITALL) != sizeof seconds) std::exit(1);
  return seconds;
}

void Contestant::work(const Preparation& prepare) const {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::close(_ends[0]);
  const std::function<void()> doWork = prepare();
  char start = 0;
  while (::recv(_ends[1], &start, 1, 0) == 1) {
    const double seconds = secondsFor(doWork);
    if (::send(_ends[1], &seconds, sizeof seconds, MSG_NOSIGNAL) != sizeof seconds) break;
  }
  ::_exit(0);
}
