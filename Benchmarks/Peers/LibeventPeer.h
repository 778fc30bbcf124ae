#pragma once

#include "Peers/Peer.h"

/// A bufferevent of libevent with a read timeout. A response is found with evbuffer_search and
/// removed from the buffer; the loop runs until there is one.
PeerPtr openLibeventPeer(const Conversation& conversation);
