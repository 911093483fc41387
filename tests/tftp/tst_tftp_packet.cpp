#include "tftp/tftp_packet.h"

#include <QTest>

using namespace TftpPacket;

namespace {
// A byte string literal with its embedded zeros, less the terminating one.
template <size_t N> QByteArray bytes(const char (&text)[N])
{
    return QByteArray(text, N - 1);
}
} // namespace

class TestTftpPacket : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void requestName_data()
    {
        QTest::addColumn<QByteArray>("datagram");
        QTest::addColumn<bool>("accepted");
        QTest::addColumn<QByteArray>("name");
        const QByteArray rrq("\0\1", 2);
        QTest::newRow("plain") << rrq + bytes("boot.bin\0octet\0") << true << QByteArray("boot.bin");
        QTest::newRow("path kept as is") << rrq + bytes("../a\\b\0octet\0") << true << QByteArray("../a\\b");
        QTest::newRow("empty name") << rrq + bytes("\0octet\0") << true << QByteArray("");
        QTest::newRow("uppercase") << rrq + bytes("f\0OCTET\0") << false << QByteArray();
        QTest::newRow("netascii") << rrq + bytes("f\0netascii\0") << false << QByteArray();
        QTest::newRow("mail") << rrq + bytes("f\0mail\0") << false << QByteArray();
        QTest::newRow("options shift the mode")
            << rrq + bytes("f\0octet\0blksize\0008192\0") << false << QByteArray();
        QTest::newRow("no final zero") << rrq + bytes("f\0octet") << false << QByteArray();
        QTest::newRow("too short") << bytes("\0\1octet\0") << false << QByteArray();
        QTest::newRow("empty") << QByteArray() << false << QByteArray();
        // Position from the end is all that counts: no zero before the mode is needed.
        QTest::newRow("mode by position") << rrq + bytes("abcoctet\0") << true << QByteArray("ab");
    }
    void requestName()
    {
        QFETCH(QByteArray, datagram);
        QFETCH(bool, accepted);
        QFETCH(QByteArray, name);
        const auto got = octetRequestName(datagram);
        QCOMPARE(got.has_value(), accepted);
        if (accepted)
            QCOMPARE(*got, name);
    }

    void opcodeAndBlock()
    {
        QCOMPARE(opcode(QByteArray()), 0);
        QCOMPARE(opcode(QByteArray(1, '\0')), 0);
        QCOMPARE(opcode(bytes("\xff\xff")), 0xffff);
        QCOMPARE(opcode(bytes("\0\4")), 4);
        QCOMPARE(blockNumber(bytes("\0\4\1")), std::nullopt);
        QCOMPARE(blockNumber(bytes("\0\4\1\2")), std::optional<int>(258));
        QCOMPARE(ack(1, 0), bytes("\0\4\1\0"));
        QByteArray data;
        dataHeader(data, 0xff, 0x01, 3);
        QCOMPARE(data.size(), 7);
        QCOMPARE(data.left(4), bytes("\0\3\xff\1"));
    }

    void nextBlock_data()
    {
        QTest::addColumn<int>("high");
        QTest::addColumn<int>("low");
        QTest::addColumn<int>("nextHigh");
        QTest::addColumn<int>("nextLow");
        QTest::newRow("0 -> 1") << 0 << 0 << 0 << 1;
        QTest::newRow("254 -> 255") << 0 << 254 << 0 << 255;
        QTest::newRow("255 -> 256 carries") << 0 << 255 << 1 << 0;
        QTest::newRow("511 -> 512") << 1 << 255 << 2 << 0;
        QTest::newRow("65535 does not wrap") << 255 << 255 << 256 << 0;
    }
    void nextBlock()
    {
        QFETCH(int, high);
        QFETCH(int, low);
        QFETCH(int, nextHigh);
        QFETCH(int, nextLow);
        const BlockBytes next = TftpPacket::nextBlock(high, low);
        QCOMPARE(next.high, nextHigh);
        QCOMPARE(next.low, nextLow);
    }

    // The first block is full from 512 bytes on, a later one only when 513 remain.
    void blockPlans_data()
    {
        QTest::addColumn<qint64>("size");
        QTest::addColumn<QList<qint64>>("lengths");
        QTest::newRow("0") << qint64(0) << QList<qint64> { 0 };
        QTest::newRow("511") << qint64(511) << QList<qint64> { 511 };
        QTest::newRow("512 ends with an empty block") << qint64(512) << QList<qint64> { 512, 0 };
        QTest::newRow("513") << qint64(513) << QList<qint64> { 512, 1 };
        QTest::newRow("1024 has no empty block") << qint64(1024) << QList<qint64> { 512, 512 };
        QTest::newRow("1025") << qint64(1025) << QList<qint64> { 512, 512, 1 };
        QTest::newRow("1536") << qint64(1536) << QList<qint64> { 512, 512, 512 };
    }
    void blockPlans()
    {
        QFETCH(qint64, size);
        QFETCH(QList<qint64>, lengths);
        QList<qint64> got;
        BlockPlan plan = firstBlock(size);
        got << plan.length;
        for (int block = 2; !plan.final && block < 100; ++block) {
            plan = laterBlock(size, block);
            QCOMPARE(plan.offset, writeOffset(block));
            got << plan.length;
        }
        QVERIFY(plan.final);
        QCOMPARE(got, lengths);
        // An ACK far past the end plans an empty final block, never a negative read.
        QCOMPARE(laterBlock(size, 50).length, 0);
    }
};

QTEST_APPLESS_MAIN(TestTftpPacket)
#include "tst_tftp_packet.moc"
