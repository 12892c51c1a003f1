#pragma once

class QAbstractSocket;

namespace vantorelle {

// How soon a silent peer is found: the first probe after this much silence, then one probe per
// interval, and the connection is dropped after that many unanswered probes (10 + 3 x 5 = 25 s).
struct KeepAliveTiming
{
    int idleSeconds = 10;
    int intervalSeconds = 5;
    int probes = 3;
};

// Turns on TCP keep-alive for a connected socket, with the operating system asked to probe at
// `timing`'s pace rather than its default of hours. False when the socket refused it.
bool enableKeepAlive(QAbstractSocket* socket, const KeepAliveTiming& timing = {});

} // namespace vantorelle
