#pragma once

#include "Peers/Peer.h"

/// gensio's synchronous calls, gensio_write_s and gensio_read_s with a timeout. It does not split
/// what it reads; the search for the delimiter is that of the raw loop.
PeerPtr openGensioPeer(const Conversation& conversation);
