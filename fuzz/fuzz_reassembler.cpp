// Feeds arbitrary type-4 payloads to the admin-reply reassembler.
// Input: first byte even = a run of payloads, each one length byte then that many bytes;
// odd = the rest is one admin message, which must survive framing and reassembly intact.
#include "admin_reassembler.h"
#include "frame_codec.h"
#include "frame_decoder.h"
#include "fuzz_require.h"

#include <cstdint>

using namespace vantorelle;
using vantorelle::fuzz::require;

namespace {

void feedPayloads(QByteArrayView input)
{
    AdminReassembler reassembler;
    for (qsizetype at = 0; at < input.size();) {
        const qsizetype length = qMin(qsizetype(quint8(input[at])), input.size() - at - 1);
        const QByteArrayView payload = input.sliced(at + 1, length);
        at += 1 + length;
        const bool wasIdle = reassembler.isIdle();
        const std::optional<QByteArray> reply = reassembler.add(payload);
        // A fragmented reply is never empty: its total is at least 1.
        require(!reply || ((wasIdle && payload.startsWith('{')) || !reply->isEmpty()));
        require(!reply || reassembler.isIdle());
    }
}

void roundTrip(QByteArrayView message)
{
    if (message.size() > kMaxAdminRequest)
        return require(encodeAdminRequest(message).isEmpty());
    // Messages that fit in one frame are told apart by their opening brace.
    if (message.size() <= kMaxFramePayload && !message.startsWith('{'))
        return;
    FrameDecoder decoder;
    AdminReassembler reassembler;
    std::optional<QByteArray> reply;
    for (const Frame& frame : decoder.decodeFrames(encodeAdminRequest(message).join())) {
        require(!reply);
        reply = reassembler.add(frame.payload);
    }
    require(reply && *reply == message);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    const QByteArrayView rest(data + 1, qsizetype(size - 1));
    if (data[0] % 2 == 0)
        feedPayloads(rest);
    else
        roundTrip(rest);
    return 0;
}
