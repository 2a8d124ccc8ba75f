#pragma once

#include <netinet/in.h>

#include "doctor/packet.h"
#include "doctor/walk.h"

namespace doctor {

/// A mapped web server, as the packets of its connections show it.
inline MappedFlow webFlow() {
    MappedFlow flow;
    flow.external = "wan0";
    flow.internal = "lan0";
    flow.externalAddress = 0xC6336401;  // 198.51.100.1
    flow.externalPort = 80;
    flow.protocol = IPPROTO_TCP;
    flow.client = 0xC0000202;  // 192.0.2.2
    flow.clientPort = 8080;
    return flow;
}

/// What becomes of a packet.
enum class Fate { passes, drops, doubtful };

inline Fate fateOf(const Outcome& outcome) {
    if (!outcome.drop) return Fate::passes;
    return outcome.mayPass ? Fate::doubtful : Fate::drops;
}

}  // namespace doctor
