#include "frame_decoder.h"

#include <bit>
#include <cstring>

namespace vantorelle {

namespace {

constexpr char kFrameStart[] = {0x00, 'V', 'T'};

quint16 readLittleEndian(const char* at)
{
    return quint16(quint8(at[0]) | (quint8(at[1]) << 8));
}

} // namespace

QList<Frame> FrameDecoder::decodeFrames(QByteArrayView incoming)
{
    m_buffer.append(incoming);
    QList<Frame> frames;
    qsizetype pos = m_start;
    for (;;) {
        const qsizetype start = findFrameStart(pos);
        if (start < 0) {
            pos = keepPossibleStart(pos);
            break;
        }
        pos = start;
        if (m_buffer.size() - pos < kFrameHeaderSize)
            break;
        const char* header = m_buffer.constData() + pos;
        const qsizetype length = readLittleEndian(header + 4);
        if (length > kMaxFramePayload) {
            ++pos;
            continue;
        }
        if (m_buffer.size() - pos < length + kFrameOverhead)
            break;
        const qsizetype payload = pos + kFrameHeaderSize;
        if (!crcMatches(payload, payload + length)) {
            ++pos;
            continue;
        }
        frames.append({FrameType(quint8(header[3])), m_buffer.sliced(payload, length)});
        pos += length + kFrameOverhead;
    }
    m_start = pos;
    compact();
    return frames;
}

void FrameDecoder::clear()
{
    m_buffer.clear();
    m_start = 0;
    m_crcStates.clear();
    m_crcOrigin = 0;
}

qsizetype FrameDecoder::findFrameStart(qsizetype from) const
{
    const char* data = m_buffer.constData();
    const qsizetype last = m_buffer.size() - qsizetype(sizeof kFrameStart); // last possible start
    while (from <= last) {
        const void* zero = std::memchr(data + from, kFrameStart[0], size_t(last - from + 1));
        if (!zero)
            return -1;
        const qsizetype at = static_cast<const char*>(zero) - data;
        if (data[at + 1] == kFrameStart[1] && data[at + 2] == kFrameStart[2])
            return at;
        from = at + 1;
    }
    return -1;
}

// No frame start left: keep only what may become one with the next read.
qsizetype FrameDecoder::keepPossibleStart(qsizetype from) const
{
    const QByteArrayView rest = QByteArrayView(m_buffer).sliced(from);
    if (rest.endsWith(QByteArrayView(kFrameStart, 2)))
        return m_buffer.size() - 2;
    if (rest.endsWith(kFrameStart[0]))
        return m_buffer.size() - 1;
    return m_buffer.size();
}

bool FrameDecoder::crcMatches(qsizetype payloadBegin, qsizetype payloadEnd)
{
    const qsizetype known = m_crcOrigin + qsizetype(m_crcStates.size()) - 1;
    if (m_crcStates.empty() || payloadBegin < m_crcOrigin || payloadBegin > known) {
        m_crcOrigin = payloadBegin;
        m_crcStates.assign(1, 0);
    }
    // CRC(init, P) = init * x^(8|P|) + (register from 0 over P); the latter is the difference of
    // the running register at both ends, with the earlier one carried across |P| bytes.
    const quint16 begin = crcStateAt(payloadBegin);
    const quint16 end = crcStateAt(payloadEnd);
    const quint16 crc = advance(0xFFFF ^ begin, payloadEnd - payloadBegin) ^ end;
    return crc == readLittleEndian(m_buffer.constData() + payloadEnd);
}

quint16 FrameDecoder::crcStateAt(qsizetype index)
{
    const qsizetype known = m_crcOrigin + qsizetype(m_crcStates.size()) - 1;
    if (index > known) {
        // Through the end of what has arrived, in one go: a line of false frame starts asks for
        // a few more bytes at each one.
        const qsizetype count = m_buffer.size() - known;
        m_crcStates.resize(m_crcStates.size() + size_t(count));
        quint16* out = m_crcStates.data() + (known - m_crcOrigin) + 1;
        crc16Trace(out[-1], QByteArrayView(m_buffer).sliced(known, count), out);
    }
    return m_crcStates[size_t(index - m_crcOrigin)];
}

quint16 FrameDecoder::advance(quint16 state, qsizetype count)
{
    if (count != m_tableLength) {
        const bool repeated = count == m_lastLength;
        m_lastLength = count;
        if (!repeated)
            return crc16Advance(state, count);
        // The advance is linear in the register: each table entry is the sum of the images of
        // its bits, so 16 products fill both tables.
        std::array<quint16, 8> high{};
        std::array<quint16, 8> low{};
        for (int bit = 0; bit < 8; ++bit) {
            high[size_t(bit)] = crc16Advance(quint16(0x100 << bit), count);
            low[size_t(bit)] = crc16Advance(quint16(1 << bit), count);
        }
        m_advanceHigh[0] = m_advanceLow[0] = 0;
        for (unsigned byte = 1; byte < 256; ++byte) {
            const size_t bit = size_t(std::countr_zero(byte));
            m_advanceHigh[byte] = m_advanceHigh[byte & (byte - 1)] ^ high[bit];
            m_advanceLow[byte] = m_advanceLow[byte & (byte - 1)] ^ low[bit];
        }
        m_tableLength = count;
    }
    return m_advanceHigh[state >> 8] ^ m_advanceLow[state & 0xFF];
}

// Moves the kept bytes to the front only once the consumed part is at least as large, so each
// byte is moved a bounded number of times.
void FrameDecoder::compact()
{
    const qsizetype kept = m_buffer.size() - m_start;
    if (m_start == 0 || m_start < kept)
        return;
    m_buffer.remove(0, m_start);
    m_crcOrigin -= m_start;
    m_start = 0;
    if (m_crcOrigin < 0) {
        const size_t stale = size_t(-m_crcOrigin);
        m_crcStates.erase(m_crcStates.begin(),
                          m_crcStates.begin() + qsizetype(qMin(stale, m_crcStates.size())));
        m_crcOrigin = 0;
    }
}

} // namespace vantorelle
