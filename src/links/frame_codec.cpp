#include "frame_codec.h"

#include <array>

namespace vantorelle {

namespace {

constexpr quint16 kPolynomial = 0x1021;
constexpr char kSync = 0x00;
constexpr char kMagic[] = {'V', 'T'};

constexpr quint16 shiftBit(quint16 crc)
{
    return (crc & 0x8000) ? quint16((crc << 1) ^ kPolynomial) : quint16(crc << 1);
}

constexpr std::array<quint16, 256> makeByteTable()
{
    std::array<quint16, 256> table{};
    for (int byte = 0; byte < 256; ++byte) {
        quint16 crc = quint16(byte << 8);
        for (int bit = 0; bit < 8; ++bit)
            crc = shiftBit(crc);
        table[byte] = crc;
    }
    return table;
}

constexpr std::array<quint16, 256> kByteTable = makeByteTable();

// Product of two remainders modulo the CRC polynomial.
constexpr quint16 multiply(quint16 a, quint16 b)
{
    quint16 product = 0;
    for (int bit = 15; bit >= 0; --bit) {
        product = shiftBit(product);
        if ((b >> bit) & 1)
            product ^= a;
    }
    return product;
}

// kZeroBytes[n]: what n zero bytes multiply the register by (x^(8n) modulo the polynomial).
constexpr std::array<quint16, kMaxFramePayload + 1> makeZeroBytesTable()
{
    std::array<quint16, kMaxFramePayload + 1> table{};
    table[0] = 1;
    for (size_t n = 1; n < table.size(); ++n)
        table[n] = multiply(table[n - 1], 0x0100);
    return table;
}

constexpr std::array<quint16, kMaxFramePayload + 1> kZeroBytes = makeZeroBytesTable();

QByteArray frameHeader(quint8 type, qsizetype length)
{
    QByteArray header;
    header.reserve(kFrameOverhead + length);
    header.append(kSync).append(kMagic, 2).append(char(type));
    header.append(char(length & 0xFF)).append(char(length >> 8));
    return header;
}

QByteArray fragment(QByteArrayView request, int index)
{
    const qsizetype total = request.size();
    QByteArray payload;
    payload.append(char(total >> 8)).append(char(total & 0xFF)).append(char(index));
    payload.append(request.sliced(index * kAdminPieceSize)
                       .first(qMin(kAdminPieceSize, total - index * kAdminPieceSize)));
    return payload;
}

} // namespace

quint16 crc16Update(quint16 state, QByteArrayView data)
{
    for (const char byte : data)
        state = quint16(state << 8) ^ kByteTable[(state >> 8) ^ quint8(byte)];
    return state;
}

quint16 crc16Trace(quint16 state, QByteArrayView data, quint16* out)
{
    for (const char byte : data) {
        state = quint16(state << 8) ^ kByteTable[(state >> 8) ^ quint8(byte)];
        *out++ = state;
    }
    return state;
}

quint16 crc16(QByteArrayView data)
{
    return crc16Update(0xFFFF, data);
}

quint16 crc16Advance(quint16 state, qsizetype count)
{
    Q_ASSERT(count >= 0 && count <= kMaxFramePayload);
    return multiply(state, kZeroBytes[size_t(count)]);
}

QByteArray encodeFrame(FrameType type, QByteArrayView payload)
{
    if (payload.size() > kMaxFramePayload)
        return {};
    QByteArray frame = frameHeader(quint8(type), payload.size());
    frame.append(payload);
    const quint16 crc = crc16(payload);
    frame.append(char(crc & 0xFF)).append(char(crc >> 8));
    return frame;
}

QList<QByteArray> encodeAdminRequest(QByteArrayView request)
{
    if (request.size() <= kMaxFramePayload)
        return {encodeFrame(FrameType::Admin, request)};
    if (request.size() > kMaxAdminRequest)
        return {};
    QList<QByteArray> frames;
    const int pieces = int((request.size() + kAdminPieceSize - 1) / kAdminPieceSize);
    for (int index = 0; index < pieces; ++index)
        frames.append(encodeFrame(FrameType::Admin, fragment(request, index)));
    return frames;
}

} // namespace vantorelle
