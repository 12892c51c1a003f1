#pragma once

#include "frame_codec.h"

#include <QByteArray>
#include <QList>

#include <array>
#include <vector>

namespace vantorelle {

// Streaming decoder for the USB line: bytes go in as they were read, checked frames come out.
// A bad length or CRC costs one byte of resynchronisation, so a frame that starts inside a
// corrupt one is still found. The work stays linear in the input however the bytes are split
// and however many false frame starts they hold: consumed bytes are skipped by an offset and
// CRCs come from running register values instead of a pass over every candidate payload.
class FrameDecoder
{
public:
    // Appends `incoming` to the receive buffer and returns the complete, checked frames in
    // arrival order.
    QList<Frame> decodeFrames(QByteArrayView incoming);
    // The bytes kept for the next call: the start of a frame not yet complete, or nothing.
    QByteArray pending() const { return m_buffer.sliced(m_start); }
    void clear();

private:
    qsizetype findFrameStart(qsizetype from) const;
    qsizetype keepPossibleStart(qsizetype from) const;
    bool crcMatches(qsizetype payloadBegin, qsizetype payloadEnd);
    quint16 crcStateAt(qsizetype index);
    quint16 advance(quint16 state, qsizetype count);
    void compact();

    QByteArray m_buffer;
    qsizetype m_start = 0; // bytes before this offset are consumed
    // Running CRC register (started at 0 on byte m_crcOrigin): m_crcStates[k] is its value
    // after the bytes [m_crcOrigin, m_crcOrigin + k).
    qsizetype m_crcOrigin = 0;
    std::vector<quint16> m_crcStates;
    // crc16Advance for one payload length as two byte tables, built once a length comes twice in
    // a row: a line of false frame starts announces the same length at each of them, and the
    // bit-by-bit product would otherwise be most of the cost of rejecting one.
    qsizetype m_lastLength = -1;
    qsizetype m_tableLength = -1;
    std::array<quint16, 256> m_advanceHigh{};
    std::array<quint16, 256> m_advanceLow{};
};

} // namespace vantorelle
