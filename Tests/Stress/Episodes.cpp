#include "Stress/Episodes.h"

namespace support {

const std::vector<Episode>& episodes() {
  static const std::vector<Episode> all = {
      {"ReadBesideWrite", readBesideWrite},
      {"CloseBesideReadAndWrite", closeBesideReadAndWrite},
      {"ActiveStorm", activeStorm},
      {"StackStorm", stackStorm},
      {"ChainReplaced", chainReplaced},
      {"RecorderBesideSettings", recorderBesideSettings},
      {"ServerBesideClients", serverBesideClients},
      {"DelegatesVanish", delegatesVanish},
      {"LogModeChanges", logModeChanges},
      {"SinkChanges", sinkChanges},
      {"ForksDuringTraffic", forksDuringTraffic},
      {"DeviceGoesAway", deviceGoesAway},
      {"ConsoleBesideClose", consoleBesideClose},
      {"SharedValues", sharedValues},
  };
  return all;
}

}  // namespace support
