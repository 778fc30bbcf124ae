#pragma once

#include <sys/types.h>

/// The number of the calling process, as getpid(2) returns it. Usually makes no system call: the
/// system is asked one time, and again in each forked child, whichever way that was forked. Never
/// waits. Safe on any thread.
pid_t ZPIProcessID();
