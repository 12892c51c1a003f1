#include "stream_relay.h"

namespace vantorelle {

StreamRelay::~StreamRelay() = default;

void StreamRelay::configure(const QJsonObject& streams)
{
    m_streams = streams;
}

void StreamRelay::reset()
{
    m_streams = {};
    m_dropped = 0;
}

void StreamRelay::fromDevice(const QByteArray& bytes)
{
    // Our hello advertises no streams, so no stream of ours can be addressed.
    m_dropped += bytes.size();
}

} // namespace vantorelle
