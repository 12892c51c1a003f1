// Feeds arbitrary bytes to the USB frame decoder in reads of varying size and checks it against
// the decoding rules applied literally (one buffer, one byte dropped per resynchronisation).
// Input: first byte = read size - 1, then the line's bytes.
#include "frame_decoder.h"
#include "fuzz_require.h"

#include <cstdint>

using namespace vantorelle;
using vantorelle::fuzz::require;

namespace {

quint16 bitwiseCrc(QByteArrayView data)
{
    quint16 crc = 0xFFFF;
    for (const char byte : data) {
        crc ^= quint16(quint8(byte) << 8);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x8000) ? quint16((crc << 1) ^ 0x1021) : quint16(crc << 1);
    }
    return crc;
}

void keepPossibleStart(QByteArray& buffer)
{
    if (buffer.endsWith(QByteArrayView("\0V", 2)))
        buffer = buffer.right(2);
    else if (buffer.endsWith('\0'))
        buffer = buffer.right(1);
    else
        buffer.clear();
}

QList<Frame> referenceDecode(QByteArray& buffer, QByteArrayView incoming)
{
    buffer.append(incoming);
    QList<Frame> frames;
    for (;;) {
        const qsizetype start = buffer.indexOf(QByteArrayView("\0VT", 3));
        if (start < 0) {
            keepPossibleStart(buffer);
            return frames;
        }
        buffer.remove(0, start);
        if (buffer.size() < 6)
            return frames;
        const qsizetype length = quint8(buffer[4]) | (quint8(buffer[5]) << 8);
        if (length > 2048) {
            buffer.remove(0, 1);
            continue;
        }
        if (buffer.size() < length + 8)
            return frames;
        const QByteArray payload = buffer.mid(6, length);
        const quint16 stored = quint8(buffer[6 + length]) | (quint8(buffer[7 + length]) << 8);
        if (bitwiseCrc(payload) != stored) {
            buffer.remove(0, 1);
            continue;
        }
        frames.append({FrameType(quint8(buffer[3])), payload});
        buffer.remove(0, length + 8);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const qsizetype readSize = data[0] + 1;
    const QByteArrayView line(data + 1, qsizetype(size - 1));
    FrameDecoder decoder;
    QByteArray reference;
    for (qsizetype at = 0; at < line.size(); at += readSize) {
        const QByteArrayView read = line.sliced(at, qMin(readSize, line.size() - at));
        require(decoder.decodeFrames(read) == referenceDecode(reference, read));
        require(decoder.pending() == reference);
    }
    return 0;
}
