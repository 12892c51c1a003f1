#include "admin_reassembler.h"

namespace vantorelle {

namespace {

constexpr qsizetype kFragmentHeaderSize = 3;

} // namespace

std::optional<QByteArray> AdminReassembler::add(QByteArrayView payload)
{
    if (isIdle() && payload.startsWith('{'))
        return payload.toByteArray();
    if (payload.size() < kFragmentHeaderSize)
        return std::nullopt;
    const int total = (quint8(payload[0]) << 8) | quint8(payload[1]);
    const int index = quint8(payload[2]);
    if (!accepts(total, index)) {
        // A fragment that breaks a chain does not start a new one either.
        reset();
        return std::nullopt;
    }
    m_total = total;
    m_nextIndex = index + 1;
    m_data.append(payload.sliced(kFragmentHeaderSize));
    return takeIfComplete();
}

void AdminReassembler::reset()
{
    m_total = 0;
    m_nextIndex = 0;
    m_data.clear();
}

bool AdminReassembler::accepts(int total, int index) const
{
    if (isIdle())
        return total != 0 && index == 0;
    return total == m_total && index == m_nextIndex;
}

std::optional<QByteArray> AdminReassembler::takeIfComplete()
{
    if (m_data.size() < m_total)
        return std::nullopt;
    QByteArray reply = m_data.first(m_total);
    reset();
    return reply;
}

} // namespace vantorelle
