#pragma once

#include <ctime>

/// The wall-clock time `timeout` seconds from now, as pthread_cond_timedwait(3) needs it. For a
/// timeout that is 0, negative or not a number this is the present time, which has passed before
/// anybody can wait for it; for a huge or infinite one, a time that no process lives to see.
timespec ZPIWallClockDeadline(double timeout);
