#pragma once

#include "utils/UniqueFd.h"

// Descriptors that came from a peer, and sockets to one. The end of such a file may wait as long as
// the peer likes: for what a TCP socket has still to send, or for a file system that is the peer's
// own. What may wait is closed on threads that do nothing else, "PeerFiles"; nobody waits for them,
// and the end of the process ends what they wait for.
//
// Threads: any. No operation raises.
namespace kelm {

// Of a descriptor that a peer has passed. Shared memory, pipes and files of a disk end at once.
void closeOfPeer(int fd);
// Of a socket that this side has accepted, or listens on: both directions end at once, and peers
// find that out. What they have passed and nobody has read ends with it.
void closeSocketOfPeers(int socket);

using PeerFd = BasicFd<closeOfPeer>;
using PeerSocket = BasicFd<closeSocketOfPeers>;

}  // namespace kelm
