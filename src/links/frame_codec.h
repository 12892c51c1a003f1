#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>

namespace vantorelle {

// The framed protocol on the USB serial line. A frame is
//   0x00 'V' 'T' | type | payload length (LE, 2 bytes) | payload | CRC-16 of the payload (LE)
// and carries one of several multiplexed channels, told apart by its type.
enum class FrameType : quint8
{
    Live = 1,        // device to computer: one live-data envelope
    CloudRelay = 2,  // raw bytes of the cloud relay's TCP connection
    Control = 3,     // compact JSON object whose "t" names its kind
    Admin = 4,       // admin request or reply, possibly fragmented
    StreamRelay = 5, // stream-relay data
};

struct Frame
{
    FrameType type = FrameType::Live;
    QByteArray payload;

    friend bool operator==(const Frame&, const Frame&) = default;
};

inline constexpr qsizetype kMaxFramePayload = 2048;
inline constexpr qsizetype kFrameHeaderSize = 6;     // sync, magic, type, length
inline constexpr qsizetype kFrameOverhead = 8;       // header plus CRC
inline constexpr qsizetype kMaxAdminRequest = 65535; // the fragment header holds 16 bits
inline constexpr qsizetype kAdminPieceSize = 2045;   // 3 header bytes + 2045 = one full frame

// CRC-16/CCITT-FALSE: polynomial 0x1021, initial 0xFFFF, no reflection, no final XOR.
quint16 crc16(QByteArrayView data);
// The CRC register after feeding `data` to a register that holds `state`.
quint16 crc16Update(quint16 state, QByteArrayView data);
// Like crc16Update, but writes the register after each byte of `data` to `out` (data.size()
// values) and returns the last one.
quint16 crc16Trace(quint16 state, QByteArrayView data, quint16* out);
// The CRC register after feeding `count` zero bytes (0..kMaxFramePayload) to one that holds
// `state`, in constant time. Because the CRC is linear, this lets a decoder get the CRC of any
// stretch of a buffer from running register values at its two ends.
quint16 crc16Advance(quint16 state, qsizetype count);

// The whole frame, or an empty array when the payload does not fit in one frame.
QByteArray encodeFrame(FrameType type, QByteArrayView payload);

// An admin request as the type-4 frames that carry it: one frame with the request as is when it
// fits, else fragments of kAdminPieceSize bytes, each prefixed with the total length (big-endian)
// and its index. An empty list means the request is too large to send at all.
QList<QByteArray> encodeAdminRequest(QByteArrayView request);

} // namespace vantorelle
