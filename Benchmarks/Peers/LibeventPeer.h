#pragma once

#include "Peers/Peer.h"

/// A bufferevent of libevent with a read timeout. The loop runs until evbuffer_search finds the end
/// of a response, and evbuffer_remove takes it.
PeerPtr openLibeventPeer(const Conversation& conversation);
