#pragma once

#include <ctime>

/// The wall-clock time `timeout` seconds from now, as pthread_cond_timedwait(3) takes it. A timeout
/// of 0, a negative one and not-a-number give now, which is past by the time that anybody waits for
/// it; a huge or infinite one gives a time that no process lives to see.
timespec ZPIWallClockDeadline(double timeout);
