#include "admin_reassembler.h"
#include "frame_codec.h"
#include "frame_decoder.h"

#include <QTest>

using namespace vantorelle;
using namespace Qt::StringLiterals;
using Bytes = QList<QByteArray>;

namespace {

constexpr auto hex = &QByteArray::fromHex;

// Type 1 "{}" and type 3 "x", byte for byte.
const QByteArray A = hex("0056540102007b7d9666");
const QByteArray B = hex("005654030100786f1e");

} // namespace

class tst_FrameCodec : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void crcAndEncoding()
    {
        QCOMPARE(crc16("123456789"), quint16(0x29B1));
        QCOMPARE(crc16(""), quint16(0xFFFF));
        // Jumping over zero bytes must agree with feeding them.
        for (qsizetype n : {0, 1, 7, 2048})
            QCOMPARE(crc16Advance(0x1234, n), crc16Update(0x1234, QByteArray(n, '\0')));
        QCOMPARE(encodeFrame(FrameType::Control, "{}"), hex("0056540302007b7d9666"));
        QCOMPARE(encodeFrame(FrameType::CloudRelay, "one"), hex("0056540203006f6e65e06f"));
        QCOMPARE(encodeFrame(FrameType::StreamRelay, {}), hex("005654050000ffff"));
        QVERIFY(encodeFrame(FrameType::Live, QByteArray(2049, 'z')).isEmpty());
    }
    void decode_data()
    {
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<int>("chunk");    // bytes per read; 0: one read
        QTest::addColumn<Bytes>("frames"); // type byte, then payload
        QTest::addColumn<QByteArray>("pending");
        const Bytes a{"\x01{}"};
        // Type 4 around A, with its last CRC byte wrong.
        const QByteArray corrupt = hex("005654040e0061620056540102007b7d966663647157");
        const QByteArray full = hex("005654020008") + QByteArray(2048, 'z') + hex("a8a4");
        QTest::newRow("one frame") << A << 0 << a << ""_ba;
        QTest::newRow("garbage first") << "junk\0V\0"_ba + A << 0 << a << ""_ba;
        QTest::newRow("byte by byte") << A + B << 1 << Bytes{"\x01{}", "\x03x"} << ""_ba;
        QTest::newRow("ends in 00 V") << A + "x\0V"_ba << 0 << a << "\0V"_ba;
        QTest::newRow("ends in 00") << "xx\0"_ba << 0 << Bytes{} << "\0"_ba;
        QTest::newRow("ends in X") << "\0VX"_ba << 0 << Bytes{} << ""_ba;
        QTest::newRow("partial header") << "\0VT\x01"_ba << 0 << Bytes{} << "\0VT\x01"_ba;
        QTest::newRow("partial frame") << A.chopped(1) << 0 << Bytes{} << A.chopped(1);
        QTest::newRow("length 2049")
            << hex("005654010108") + QByteArray(2051, 'g') + A << 0 << a << ""_ba;
        QTest::newRow("bad CRC, frame inside") << corrupt << 0 << a << ""_ba;
        QTest::newRow("bad CRC, split inside") << corrupt << 10 << a << ""_ba;
        QTest::newRow("empty and full") << hex("005654050000ffff") + full << 0
                                        << Bytes{"\x05", "\x02" + QByteArray(2048, 'z')} << ""_ba;
        // Checks of one length in a row, the last one good.
        QTest::newRow("same length again") << A + A + A << 0 << Bytes{a[0], a[0], a[0]} << ""_ba;
        QTest::newRow("false starts, then full") << hex("005654010008").repeated(3) + full << 0
                                                 << Bytes{"\x02" + QByteArray(2048, 'z')} << ""_ba;
        QTest::newRow("unknown type") << hex("005654090100786f1e") << 0 << Bytes{"\x09x"} << ""_ba;
    }
    void decode()
    {
        QFETCH(QByteArray, input);
        QFETCH(int, chunk);
        FrameDecoder decoder;
        Bytes decoded;
        for (qsizetype at = 0; at < input.size(); at += chunk ? chunk : input.size()) {
            for (const Frame& frame : decoder.decodeFrames(input.mid(at, chunk ? chunk : -1)))
                decoded.append(char(frame.type) + frame.payload);
        }
        QTEST(decoded, "frames");
        QTEST(decoder.pending(), "pending");
    }
    void adminRequest_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<Bytes>("headers"); // the first 3 payload bytes of each frame
        QTest::addColumn<QByteArray>("last");
        QTest::newRow("2048: whole")
            << 2048 << Bytes{"{aa"}
            << hex("005654040008") + '{' + QByteArray(2047, 'a') + hex("9178");
        QTest::newRow("2049: two fragments")
            << 2049 << Bytes{hex("080100"), hex("080101")} << hex("00565404070008010161616161334a");
        Bytes largest;
        for (int i = 0; i < 33; ++i)
            largest.append(hex("ffff") + char(i));
        QTest::newRow("65535: 33 fragments")
            << 65535 << largest << hex("005654046200ffff20") + QByteArray(95, 'a') + hex("970d");
        QTest::newRow("65536: too large") << 65536 << Bytes{} << QByteArray();
    }
    // Replies travel in the same form, so the request's frames must reassemble into it.
    void adminRequest()
    {
        QFETCH(int, size);
        QFETCH(Bytes, headers);
        const QByteArray request = '{' + QByteArray(size - 1, 'a');
        const Bytes frames = encodeAdminRequest(request);
        QCOMPARE(frames.size(), headers.size());
        if (frames.isEmpty())
            return;
        QTEST(frames.last(), "last");
        AdminReassembler reassembler;
        std::optional<QByteArray> reply;
        for (qsizetype i = 0; i < frames.size(); ++i) {
            QCOMPARE(frames[i].first(4), hex("00565404"));
            QCOMPARE(frames[i].mid(6, 3), headers[i]);
            QCOMPARE(reply, std::nullopt);
            reply = reassembler.add(frames[i].sliced(6).chopped(2));
        }
        QCOMPARE(reply, std::optional(request));
    }
    // Fragments: total length (big-endian), index, data.
    void reassemble_data()
    {
        QTest::addColumn<Bytes>("payloads");
        QTest::addColumn<Bytes>("replies");
        const QByteArray start = "\0\6\0abc"_ba; // the first half of "abcdef"
        QTest::newRow("whole") << Bytes{R"({"id":1})"} << Bytes{R"({"id":1})"};
        QTest::newRow("fragments") << Bytes{"\0\5\0ab"_ba, "\0\5\1cde"_ba} << Bytes{"abcde"};
        QTest::newRow("surplus cut") << Bytes{"\0\3\0abcdef"_ba} << Bytes{"abc"};
        QTest::newRow("index 1 while idle") << Bytes{"\0\5\1abcde"_ba} << Bytes{};
        QTest::newRow("total 0") << Bytes{"\0\0\0abc"_ba} << Bytes{};
        QTest::newRow("wrong index discards")
            << Bytes{start, "\0\6\2def"_ba, "\0\6\1def"_ba} << Bytes{};
        QTest::newRow("other total discards") << Bytes{start, "\0\7\1def"_ba} << Bytes{};
        QTest::newRow("breaker does not start")
            << Bytes{start, "\0\3\0xyz"_ba, "{}"} << Bytes{"{}"};
        QTest::newRow("brace mid-reply breaks") << Bytes{start, "{xyz"} << Bytes{};
        QTest::newRow("short payload ignored")
            << Bytes{start, "\0"_ba, "\0\6\1def"_ba} << Bytes{"abcdef"};
    }
    void reassemble()
    {
        QFETCH(Bytes, payloads);
        AdminReassembler reassembler;
        Bytes delivered;
        for (const QByteArray& payload : payloads) {
            if (const auto reply = reassembler.add(payload))
                delivered.append(*reply);
        }
        QTEST(delivered, "replies");
    }
};

QTEST_GUILESS_MAIN(tst_FrameCodec)
#include "tst_frame_codec.moc"
