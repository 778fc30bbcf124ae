#pragma once

#include "Peers/Peer.h"

/// Asio's read_until with a timeout, as in its documentation's blocking clients: an asynchronous
/// operation, and run_for.
PeerPtr openAsioPeer(const Conversation& conversation);
