// What the stress driver runs: each episode begins with nothing and leaves nothing behind.
#pragma once

#include <vector>

#include "Stress/Dice.h"

namespace support {

/// An episode: its name, and what happens in it, which `require`s what must hold.
struct Episode {
  const char* name;
  void (*run)(Dice& dice);
};

/// Bytes in both directions through random layers, on a reader's and a writer's thread.
void readBesideWrite(Dice& dice);
/// A base channel, or an active one on it, is closed during a read and a write.
void closeBesideReadAndWrite(Dice& dice);
/// Several threads open, close and reset one active channel.
void activeStorm(Dice& dice);
/// Several threads talk on one stack while others open, close, create and configure it.
void stackStorm(Dice& dice);
/// The chain and the parts of a running stack are replaced.
void chainReplaced(Dice& dice);
/// A recorder records while its settings change.
void recorderBesideSettings(Dice& dice);
/// A server starts and stops while clients arrive.
void serverBesideClients(Dice& dice);
/// A manager's delegates come and go, and it is disconnected.
void delegatesVanish(Dice& dice);
/// The mode of a log changes during traffic.
void logModeChanges(Dice& dice);
/// The sink of the log lines changes while threads log.
void sinkChanges(Dice& dice);
/// Processes are forked during traffic with logs.
void forksDuringTraffic(Dice& dice);
/// A device goes away and comes back while a stack talks to it.
void deviceGoesAway(Dice& dice);
/// A console is used, cancelled, closed and reopened.
void consoleBesideClose(Dice& dice);
/// Values are shared by threads, some of which edit copies of them.
void sharedValues(Dice& dice);

const std::vector<Episode>& episodes();

}  // namespace support
