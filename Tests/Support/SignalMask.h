#pragma once

namespace support {

/// Whether the calling thread blocks the signal.
bool isBlocked(int signal);

/// Whether the signal waits for the calling thread or the process.
bool isPending(int signal);

/// Lets the calling thread block the signal.
void block(int signal);

}  // namespace support
