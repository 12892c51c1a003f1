// Decoding speed of the USB frame decoder, fed in 4096-byte reads as the serial port delivers
// them: clean traffic, random noise, and a line full of frame starts whose CRC never matches
// (the case that must not turn quadratic). Anchors: a plain copy and a plain CRC pass over the
// same clean bytes in the same reads, the least any reader of the line does with them.
#include "frame_codec.h"
#include "frame_decoder.h"

#include <QRandomGenerator>

#include <cstring>

#include <benchmark/benchmark.h>

using namespace vantorelle;

namespace {

constexpr qsizetype kLineBytes = 1 << 20;
constexpr qsizetype kReadSize = 4096;

QByteArray cleanFrames()
{
    QByteArray line;
    for (qsizetype size = 16; line.size() < kLineBytes; size = size * 2 % kMaxFramePayload + 16) {
        const QByteArray json =
            R"({"type":"score","fields":{"clock":")" + QByteArray(size, '9') + R"("}})";
        line += encodeFrame(FrameType::Live, json.left(kMaxFramePayload));
    }
    return line;
}

QByteArray randomBytes()
{
    QByteArray line(kLineBytes, Qt::Uninitialized);
    QRandomGenerator generator(42);
    generator.fillRange(reinterpret_cast<quint32*>(line.data()), line.size() / 4);
    return line;
}

QByteArray falseFrameStarts()
{
    // Headers announcing 2048-byte payloads, one every 6 bytes: every one is checked and fails.
    const QByteArray header = QByteArray::fromHex("005654010008");
    return header.repeated(kLineBytes / header.size());
}

void decodeLine(benchmark::State& state, const QByteArray& line)
{
    for (auto _ : state) {
        FrameDecoder decoder;
        qsizetype frames = 0;
        for (qsizetype at = 0; at < line.size(); at += kReadSize) {
            const QByteArrayView read = QByteArrayView(line).sliced(at);
            frames += decoder.decodeFrames(read.first(qMin(kReadSize, read.size()))).size();
        }
        benchmark::DoNotOptimize(frames);
    }
    state.SetBytesProcessed(state.iterations() * line.size());
}

void copyLine(benchmark::State& state, const QByteArray& line)
{
    QByteArray target(kReadSize, Qt::Uninitialized);
    for (auto _ : state) {
        for (qsizetype at = 0; at < line.size(); at += kReadSize) {
            const qsizetype count = qMin(kReadSize, line.size() - at);
            std::memcpy(target.data(), line.constData() + at, size_t(count));
            benchmark::ClobberMemory();
        }
        benchmark::DoNotOptimize(target.data());
    }
    state.SetBytesProcessed(state.iterations() * line.size());
}

void crcLine(benchmark::State& state, const QByteArray& line)
{
    for (auto _ : state) {
        quint16 crc = 0xFFFF;
        for (qsizetype at = 0; at < line.size(); at += kReadSize)
            crc = crc16Update(crc,
                              QByteArrayView(line).sliced(at, qMin(kReadSize, line.size() - at)));
        benchmark::DoNotOptimize(crc);
    }
    state.SetBytesProcessed(state.iterations() * line.size());
}

} // namespace

BENCHMARK_CAPTURE(copyLine, clean_frames, cleanFrames())->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(crcLine, clean_frames, cleanFrames())->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decodeLine, clean_frames, cleanFrames())->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decodeLine, random_bytes, randomBytes())->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(decodeLine, false_frame_starts, falseFrameStarts())
    ->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
