#pragma once

#include <QByteArray>
#include <QByteArrayView>

#include <optional>

namespace vantorelle {

// Rebuilds admin replies from type-4 payloads. A payload that begins with "{" while nothing is
// being collected is a whole reply; otherwise it is a fragment: total length (2 bytes,
// big-endian), fragment index (1 byte), data. Fragments must arrive in order with the same
// total; any break in the chain discards the reply being collected.
class AdminReassembler
{
public:
    // Takes one type-4 payload; returns the reply once it is complete.
    std::optional<QByteArray> add(QByteArrayView payload);
    void reset();
    bool isIdle() const { return m_total == 0; }

private:
    bool accepts(int total, int index) const;
    std::optional<QByteArray> takeIfComplete();

    int m_total = 0; // 0 while idle
    int m_nextIndex = 0;
    QByteArray m_data;
};

} // namespace vantorelle
