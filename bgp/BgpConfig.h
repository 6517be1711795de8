// The configuration of srte-bgp: the local speaker and its peers, read from a JSON file.
//
//   {"localAs": 65000, "bgpIdentifier": "10.0.0.1",
//    "listenAddress": "127.0.0.1", "listenPort": 179, "table": "srte-bgp",
//    "peers": [{"address": "127.0.0.1", "port": 179, "as": 65000, "passive": true,
//               "holdTime": 90, "connectRetry": 5}]}
//
// Only localAs, bgpIdentifier and the peers' address and as are required. A mistake is refused
// with the file, the JSON path of the value and the reason.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Ludd/IpAddr.h"
#include "Mosk/Types.h"
#include "SrTePolicy/SrTePolicySource.h"

namespace SrTeBgp {

struct PeerConfig {
  Ludd::IpGenAddr address;
  U16 port = 179;
  U32 as = 0;
  // Waits for the peer to connect; an active peer is also connected to.
  bool passive = false;
  // 0, or 3 to 65535 seconds.
  U16 holdTime = 90;
  // Seconds before the first reconnect of an active peer; each failure doubles it up to 60.
  U32 connectRetry = 5;
};

struct SpeakerConfig {
  U32 localAs = 0;
  Ludd::IpAddr bgpIdentifier;
  Ludd::IpGenAddr listenAddress = Ludd::IpAddr();
  // Null: no listener. 0: the system picks a port (srte-bgp says which).
  std::optional<U16> listenPort = U16(179);
  std::string table = SrTePolicy::defaultTableName(SrTePolicy::PolicySource::sourceBgp);
  // The most candidate paths the table holds when srte-bgp creates it.
  U32 capacity = 16384;
  std::vector<PeerConfig> peers;
};

// A mistake in the file: "FILE: PATH: REASON".
class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Reads and checks the configuration in `text`, named `file` in errors.
SpeakerConfig readConfigText(std::string const& text, std::string const& file);
// Reads and checks the file at `path`.
SpeakerConfig readConfigFile(std::string const& path);

}  // namespace SrTeBgp
