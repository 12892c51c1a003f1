#include "links/admin_reassembler.h"
#include "links/frame_codec.h"
#include "links/frame_decoder.h"

#include <QTest>

using namespace vantorelle;
using namespace Qt::StringLiterals;

namespace {

QByteArray frame(int type, const QByteArray& payload)
{
    return encodeFrame(FrameType(type), payload);
}

QList<QByteArray> encoded(const QList<Frame>& frames)
{
    QList<QByteArray> list;
    for (const Frame& f : frames)
        list.append(encodeFrame(f.type, f.payload));
    return list;
}

QByteArray fragment(int total, int index, const QByteArray& data)
{
    return QByteArray(1, char(total >> 8)) + char(total & 0xFF) + char(index) + data;
}

QList<QByteArray> bytesOf(const QByteArray& data)
{
    QList<QByteArray> chunks;
    for (char c : data)
        chunks.append(QByteArray(1, c));
    return chunks;
}

} // namespace

class tst_FrameCodec : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void crc()
    {
        QCOMPARE(crc16("123456789"), quint16(0x29B1));
        QCOMPARE(crc16(""), quint16(0xFFFF));
        // Jumping over zero bytes must agree with feeding them.
        for (qsizetype n : {0, 1, 7, 2048})
            QCOMPARE(crc16Advance(0x1234, n), crc16Update(0x1234, QByteArray(n, '\0')));
    }

    void encodeLayout()
    {
        const QByteArray bytes = frame(3, "{}");
        const quint16 crc = crc16("{}");
        QCOMPARE(bytes,
                 QByteArray::fromHex("0056540302007b7d") + char(crc & 0xFF) + char(crc >> 8));
        const QByteArray largest = frame(1, QByteArray(2048, 'x'));
        QCOMPARE(largest.size(), 2056);
        QCOMPARE(largest.mid(4, 2), QByteArray::fromHex("0008"));
        QVERIFY(frame(1, QByteArray(2049, 'x')).isEmpty());
    }

    void decode_data()
    {
        QTest::addColumn<QList<QByteArray>>("reads");
        QTest::addColumn<QList<QByteArray>>("frames");
        QTest::addColumn<QByteArray>("pending");

        const QByteArray a = frame(1, R"({"home_score":3})");
        const QByteArray b = frame(3, R"({"t":"hello"})");
        QByteArray badLength = QByteArray::fromHex("0056540101") + '\x08' + QByteArray(2051, 'g');
        QByteArray corrupt = frame(4, "ab" + a + "cd");
        corrupt[corrupt.size() - 1] = char(corrupt.back() ^ 0x01);

        QTest::newRow("one frame") << QList{a} << QList{a} << QByteArray();
        QTest::newRow("garbage first") << QList{"junk\0V\0"_ba + a} << QList{a} << QByteArray();
        QTest::newRow("split into bytes") << bytesOf(a + b) << QList{a, b} << QByteArray();
        QTest::newRow("ends in 00 V") << QList{a + "x\0V"_ba} << QList{a} << "\0V"_ba;
        QTest::newRow("ends in 00") << QList{"xx\0"_ba} << QList<QByteArray>() << "\0"_ba;
        QTest::newRow("ends in X") << QList{"\0VX"_ba} << QList<QByteArray>() << QByteArray();
        QTest::newRow("partial header")
            << QList{"\0VT\x01"_ba} << QList<QByteArray>() << "\0VT\x01"_ba;
        QTest::newRow("partial frame")
            << QList{a.chopped(1)} << QList<QByteArray>() << a.chopped(1);
        QTest::newRow("length 2049") << QList{badLength + a} << QList{a} << QByteArray();
        QTest::newRow("bad CRC, frame inside") << QList{corrupt} << QList{a} << QByteArray();
        QTest::newRow("bad CRC, split inside")
            << QList{corrupt.left(10), corrupt.mid(10)} << QList{a} << QByteArray();
        const QByteArray empty = frame(5, {}), full = frame(2, QByteArray(2048, 'z'));
        QTest::newRow("empty and full")
            << QList{empty + full} << QList{empty, full} << QByteArray();
        QTest::newRow("unknown type")
            << QList{frame(9, "x")} << QList{frame(9, "x")} << QByteArray();
    }

    void decode()
    {
        QFETCH(QList<QByteArray>, reads);
        QFETCH(QList<QByteArray>, frames);
        QFETCH(QByteArray, pending);
        FrameDecoder decoder;
        QList<Frame> decoded;
        for (const QByteArray& read : reads)
            decoded += decoder.decodeFrames(read);
        QCOMPARE(encoded(decoded), frames);
        QCOMPARE(decoder.pending(), pending);
    }

    void adminRequest_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<QList<QByteArray>>("headers"); // first 3 bytes of each payload

        QTest::newRow("2048: whole") << 2048 << QList{"{aa"_ba};
        QTest::newRow("2049: two fragments")
            << 2049 << QList{QByteArray::fromHex("080100"), QByteArray::fromHex("080101")};
        QList<QByteArray> largest;
        for (int i = 0; i < 33; ++i)
            largest.append(QByteArray::fromHex("ffff") + char(i));
        QTest::newRow("65535: 33 fragments") << 65535 << largest;
        QTest::newRow("65536: too large") << 65536 << QList<QByteArray>();
    }

    // Replies travel in the same form, so the request's frames must reassemble into it.
    void adminRequest()
    {
        QFETCH(int, size);
        QFETCH(QList<QByteArray>, headers);
        const QByteArray request = '{' + QByteArray(size - 1, 'a');
        FrameDecoder decoder;
        const QList<Frame> frames = decoder.decodeFrames(encodeAdminRequest(request).join());
        QCOMPARE(frames.size(), headers.size());
        AdminReassembler reassembler;
        std::optional<QByteArray> reply;
        for (qsizetype i = 0; i < frames.size(); ++i) {
            QCOMPARE(frames[i].type, FrameType::Admin);
            QCOMPARE(frames[i].payload.first(3), headers[i]);
            QCOMPARE(reply, std::nullopt);
            reply = reassembler.add(frames[i].payload);
        }
        if (!headers.isEmpty())
            QCOMPARE(reply, std::optional(request));
        if (headers.size() == 2)
            QCOMPARE(frames[1].payload.size(), 3 + 4);
    }

    void reassemble_data()
    {
        QTest::addColumn<QList<QByteArray>>("payloads");
        QTest::addColumn<QList<QByteArray>>("replies");
        using L = QList<QByteArray>;

        QTest::newRow("whole") << L{R"({"id":1})"} << L{R"({"id":1})"};
        QTest::newRow("fragments") << L{fragment(5, 0, "ab"), fragment(5, 1, "cde")} << L{"abcde"};
        QTest::newRow("surplus cut") << L{fragment(3, 0, "abcdef")} << L{"abc"};
        QTest::newRow("index 1 while idle") << L{fragment(5, 1, "abcde")} << L{};
        QTest::newRow("total 0") << L{fragment(0, 0, "abc")} << L{};
        QTest::newRow("wrong index discards")
            << L{fragment(6, 0, "abc"), fragment(6, 2, "def"), fragment(6, 1, "def")} << L{};
        QTest::newRow("other total discards")
            << L{fragment(6, 0, "abc"), fragment(7, 1, "def")} << L{};
        QTest::newRow("breaker does not start")
            << L{fragment(6, 0, "abc"), fragment(3, 0, "xyz"), "{}"} << L{"{}"};
        QTest::newRow("brace mid-reply breaks") << L{fragment(6, 0, "abc"), "{xyz"} << L{};
        QTest::newRow("short payload ignored")
            << L{fragment(6, 0, "abc"), "\0"_ba, fragment(6, 1, "def")} << L{"abcdef"};
    }

    void reassemble()
    {
        QFETCH(QList<QByteArray>, payloads);
        QFETCH(QList<QByteArray>, replies);
        AdminReassembler reassembler;
        QList<QByteArray> delivered;
        for (const QByteArray& payload : payloads) {
            if (const auto reply = reassembler.add(payload))
                delivered.append(*reply);
        }
        QCOMPARE(delivered, replies);
    }
};

QTEST_GUILESS_MAIN(tst_FrameCodec)
#include "tst_frame_codec.moc"
