// The engine driven byte by byte by a hand-made client on loopback: what real
// clients cannot show (exact block sequences, re-sends, silence, odd uploads),
// the slot lifecycle with injected timer intervals, and malformed input.

#include "tftp/capture_sink.h"
#include "tftp_test_support.h"

#include <QRandomGenerator>
#include <QTimer>

using namespace tftptest;

namespace {
QTimer *slotTimer(TftpServer *server, int slot)
{
    for (QTimer *timer : server->findChildren<QTimer *>(QStringLiteral("Timer1"))) {
        if (timer->property("slot").toInt() == slot)
            return timer;
    }
    return nullptr;
}

int blockOf(const QNetworkDatagram &d)
{
    return (quint8(d.data()[2]) << 8) | quint8(d.data()[3]);
}

int lineCount(const QString &path)
{
    return int(readFile(path).count("\r\n"));
}

class FakeCapture : public CaptureSink
{
public:
    bool capturing() const override { return true; }
    void CaptureFileName(const QString &path) override { names << path; }
    void CaptureData(const QByteArray &data) override { this->data += data; }
    QStringList names;
    QByteArray data;
};
} // namespace

class TestTftpEngine : public QObject
{
    Q_OBJECT

private:
    // Fetches a whole file the way a client that knows its size would.
    static QByteArray download(Fixture &f, Client &client, const QByteArray &name, qint64 size)
    {
        client.send(request(1, name), f.port);
        QByteArray got;
        for (int expected = 1;; ++expected) {
            const auto d = client.receive();
            if (!d || d->data().size() < 4 || blockOf(*d) != (expected & 0xffff))
                return "<broken at block " + QByteArray::number(expected) + ">";
            got += d->data().mid(4);
            client.send(packet(4, blockOf(*d)), quint16(d->senderPort()));
            if (d->data().size() < 516 || (got.size() == size && size > 512))
                return got;
        }
    }

private Q_SLOTS:
    void startupRows()
    {
        Fixture f;
        QVERIFY2(f.server->start(), qPrintable(f.server->errorString()));
        QCOMPARE(f.socketStatus(1), QString("Listen"));
        QCOMPARE(f.monitor.socketText(1, TransferMonitor::LocalPort), QString::number(f.port));
        for (int slot = 2; slot <= 30; ++slot)
            QCOMPARE(f.socketStatus(slot), QString("ready"));
        QCOMPARE(f.monitor.transferCount(), 0);
        QCOMPARE(f.server->listenerSlot(), 1);

        // A second server cannot take the same port, and says why.
        Fixture other;
        other.server->setPort(f.port);
        QVERIFY(!other.server->start());
        QVERIFY(other.server->errorString().contains(QString::number(f.port)));
        QCOMPARE(other.socketStatus(1), QString("Listen"));
    }

    void blockSequence_data()
    {
        QTest::addColumn<qint64>("size");
        QTest::addColumn<QList<int>>("lengths");
        QTest::newRow("0") << qint64(0) << QList<int> { 0 };
        QTest::newRow("511") << qint64(511) << QList<int> { 511 };
        QTest::newRow("512") << qint64(512) << QList<int> { 512, 0 };
        QTest::newRow("513") << qint64(513) << QList<int> { 512, 1 };
        QTest::newRow("700") << qint64(700) << QList<int> { 512, 188 };
        QTest::newRow("1024") << qint64(1024) << QList<int> { 512, 512 };
        QTest::newRow("1536") << qint64(1536) << QList<int> { 512, 512, 512 };
    }
    void blockSequence()
    {
        QFETCH(qint64, size);
        QFETCH(QList<int>, lengths);
        Fixture f;
        QVERIFY(f.server->start());
        QVERIFY(writeFile(f.path("f.bin"), pattern(size)));
        Client client;
        client.send(request(1, "f.bin"), f.port);
        QByteArray got;
        for (int i = 0; i < lengths.size(); ++i) {
            const auto d = client.receive();
            QVERIFY2(d, qPrintable(QString("no block %1").arg(i + 1)));
            QCOMPARE(d->data().left(2), QByteArray("\0\3", 2));
            QCOMPARE(blockOf(*d), i + 1);
            QCOMPARE(d->data().size() - 4, lengths[i]);
            const quint16 tid = quint16(d->senderPort());
            if (i == 0) {
                // The transfer has its own port; the listener moved on to slot 2.
                QVERIFY(tid != f.port);
                QCOMPARE(f.socketStatus(1), QString("SENDING"));
                QCOMPARE(f.monitor.socketText(1, TransferMonitor::LocalPort), QString::number(tid));
                QCOMPARE(
                    f.monitor.socketText(1, TransferMonitor::RemotePort), QString::number(client.port()));
                QCOMPARE(f.socketStatus(2), QString("Listen"));
                QCOMPARE(f.server->listenerSlot(), 2);
                QCOMPARE(f.monitor.transferText(1, TransferMonitor::Filename), QString("f.bin"));
                QCOMPARE(f.monitor.transferText(1, TransferMonitor::Status), QString("Allowed"));
                QCOMPARE(f.monitor.transferText(1, TransferMonitor::From), QString("127.0.0.1"));
                QCOMPARE(f.server->highestTransferRowInUse(), 1);
            }
            got += d->data().mid(4);
            client.send(packet(4, i + 1), tid);
        }
        QCOMPARE(got, pattern(size));
        QVERIFY2(!client.receive(150), "a block after the final one");
        QCOMPARE(f.monitor.transferText(1, TransferMonitor::Status), QString("FINISHED OK"));
        QCOMPARE(f.socketStatus(1), QString("ready"));
        QCOMPARE(f.server->highestTransferRowInUse(), 0);
    }

    void duplicateAckResends()
    {
        Fixture f;
        QVERIFY(f.server->start());
        QVERIFY(writeFile(f.path("f.bin"), pattern(2000)));
        Client client;
        client.send(request(1, "f.bin"), f.port);
        const auto first = client.receive();
        QVERIFY(first);
        const quint16 tid = quint16(first->senderPort());
        client.send(packet(4, 1), tid);
        const auto second = client.receive();
        QVERIFY(second);
        client.send(packet(4, 1), tid); // duplicated: block 2 goes out again
        const auto again = client.receive();
        QVERIFY(again);
        QCOMPARE(again->data(), second->data());
        client.send(packet(4, 0), tid); // an ACK of 0 asks for block 1 again
        const auto one = client.receive();
        QVERIFY(one);
        QCOMPARE(one->data(), first->data());
        // A stranger's ACK on the transfer port is ignored.
        Client stranger;
        stranger.send(packet(4, 1), tid);
        QVERIFY(!client.receive(100));
        QVERIFY(!stranger.receive(1));
    }

    void blockNumbersCarry()
    {
        Fixture f;
        QVERIFY(f.server->start());
        const qint64 size = 300 * 512 + 10;
        QVERIFY(writeFile(f.path("big.bin"), pattern(size)));
        Client client;
        client.send(request(1, "big.bin"), f.port);
        QByteArray got;
        for (int block = 1; block <= 301; ++block) {
            const auto d = client.receive();
            QVERIFY(d);
            QCOMPARE(quint8(d->data()[2]), quint8(block >> 8)); // 255 -> 256 is 0x00ff -> 0x0100
            QCOMPARE(quint8(d->data()[3]), quint8(block & 0xff));
            got += d->data().mid(4);
            client.send(d->data().left(4).replace(1, 1, "\4"), quint16(d->senderPort()));
        }
        QCOMPARE(got, pattern(size));
    }

    void unsupportedRequestsGetSilence_data()
    {
        QTest::addColumn<int>("opcode");
        QTest::addColumn<QByteArray>("mode");
        QTest::addColumn<QByteArray>("options");
        QTest::newRow("read OCTET") << 1 << QByteArray("OCTET") << QByteArray();
        QTest::newRow("read netascii") << 1 << QByteArray("netascii") << QByteArray();
        QTest::newRow("read mail") << 1 << QByteArray("mail") << QByteArray();
        QTest::newRow("read with blksize") << 1 << QByteArray("octet")
                                           << QByteArray("blksize\0"
                                                         "8192\0",
                                                  13);
        QTest::newRow("read with tsize") << 1 << QByteArray("octet")
                                         << QByteArray("tsize\0"
                                                       "0\0",
                                                8);
        QTest::newRow("write OCTET") << 2 << QByteArray("OCTET") << QByteArray();
        QTest::newRow("write netascii") << 2 << QByteArray("netascii") << QByteArray();
        QTest::newRow("write mail") << 2 << QByteArray("mail") << QByteArray();
        QTest::newRow("write with tsize") << 2 << QByteArray("octet")
                                          << QByteArray("tsize\0"
                                                        "9\0",
                                                 8);
    }
    void unsupportedRequestsGetSilence()
    {
        QFETCH(int, opcode);
        QFETCH(QByteArray, mode);
        QFETCH(QByteArray, options);
        Fixture f;
        QVERIFY(f.server->start());
        QVERIFY(writeFile(f.path("f.bin"), pattern(100)));
        Client client;
        client.send(request(opcode, "f.bin", mode, options), f.port);
        QVERIFY(!client.receive(150));
        QCOMPARE(f.socketStatus(1), QString(opcode == 1 ? "SENDING" : "RECEIVING"));
        QCOMPARE(f.monitor.transferCount(), 0);
        QVERIFY(!QFile::exists(f.path("f.bin")) || readFile(f.path("f.bin")) == pattern(100));
        // The slot still listens: a plain request is served.
        QCOMPARE(download(f, client, "f.bin", 100), pattern(100));
    }

    void uploadKeepsOldTailAndHoldsSlot()
    {
        Fixture f(400, 60000, 60000);
        QVERIFY(f.server->start());
        QVERIFY(writeFile(f.path("up.bin"), QByteArray(1000, 'A')));
        Client client;
        client.send(request(2, "up.bin"), f.port);
        const auto ack0 = client.receive();
        QVERIFY(ack0);
        QCOMPARE(ack0->data(), packet(4, 0));
        const quint16 tid = quint16(ack0->senderPort());
        QVERIFY(tid != f.port);
        QCOMPARE(f.socketStatus(1), QString("RECEIVING"));
        QCOMPARE(f.monitor.transferText(1, TransferMonitor::From), QString("127.0.0.1")); // allowed write
        QCOMPARE(readFile(f.path("up.bin")), QByteArray(1000, 'A')); // not truncated by the request

        client.send(packet(3, 1, QByteArray(512, 'B')), tid);
        QCOMPARE(client.receive()->data(), packet(4, 1));
        client.send(packet(3, 2, QByteArray(88, 'B')), tid);
        QCOMPARE(client.receive()->data(), packet(4, 2));
        QCOMPARE(readFile(f.path("up.bin")), QByteArray(600, 'B') + QByteArray(400, 'A'));
        QCOMPARE(f.server->receivedBlocks(1), 2);

        // Held: "Blocking" with the hold interval armed, then free again.
        QCOMPARE(f.socketStatus(1), QString("Blocking"));
        QCOMPARE(f.server->slotTag(1), QString("Blocking"));
        QTimer *timer = slotTimer(f.server.get(), 1);
        QVERIFY(timer && timer->isActive());
        QCOMPARE(timer->interval(), 400);
        QCOMPARE(f.monitor.transferText(1, TransferMonitor::Status), QString("Allowed"));
        QTRY_COMPARE_WITH_TIMEOUT(f.socketStatus(1), QString("ready"), 3000);
        QCOMPARE(f.monitor.socketText(1, TransferMonitor::LocalPort), QString());
    }

    void uploadWritesBlocksWhereTheirNumbersPutThem()
    {
        Fixture f;
        QVERIFY(f.server->start());
        Client client;
        client.send(request(2, "order.bin"), f.port);
        const auto ack0 = client.receive();
        QVERIFY(ack0);
        const quint16 tid = quint16(ack0->senderPort());
        QVERIFY(!QFile::exists(f.path("order.bin")));
        const QList<QPair<int, char>> blocks { { 3, 'c' }, { 1, 'a' }, { 1, 'a' }, { 2, 'b' } };
        for (const auto &[block, fill] : blocks) {
            client.send(packet(3, block, QByteArray(512, fill)), tid);
            QCOMPARE(client.receive()->data(), packet(4, block)); // the ACK echoes the block bytes
        }
        client.send(packet(3, 4, "end"), tid);
        QCOMPARE(client.receive()->data(), packet(4, 4));
        QCOMPARE(readFile(f.path("order.bin")),
            QByteArray(512, 'a') + QByteArray(512, 'b') + QByteArray(512, 'c') + "end");
        QCOMPARE(f.server->receivedBlocks(1), 5);
    }

    void errorFromClientIsShownAndHolds()
    {
        Fixture f;
        QVERIFY(f.server->start());
        QVERIFY(writeFile(f.path("f.bin"), pattern(2000)));
        Client client;
        // On the listener an ERROR means nothing and must not stop the server.
        client.send(packet(5, 3, "stray\0"), f.port);
        QVERIFY(!client.receive(100));
        QCOMPARE(f.socketStatus(1), QString("Listen"));

        client.send(request(1, "f.bin"), f.port);
        const auto d = client.receive();
        QVERIFY(d);
        client.send(packet(5, 3, QByteArray("disk full\0", 10)), quint16(d->senderPort()));
        QVERIFY(!client.receive(100)); // never an ERROR or anything else back
        QCOMPARE(f.monitor.transferText(1, TransferMonitor::From), QString("\3disk full"));
        QCOMPARE(f.monitor.socketText(1, TransferMonitor::LocalPort), QString("ERROR"));
        QCOMPARE(f.monitor.socketText(1, TransferMonitor::SocketError), QString("\3disk full"));
        QCOMPARE(f.socketStatus(1), QString("Blocking"));
        QCOMPARE(slotTimer(f.server.get(), 1)->interval(), 60000);
    }

    void missingFileShownInAccessRow()
    {
        Fixture f;
        // Make the deciding access row number 2, so its pairing shows.
        f.acl.insertRow(0,
            { new QStandardItem("10.0.0.0"), new QStandardItem(maskDisplayForm(8)), new QStandardItem("yes"),
                new QStandardItem("yes"), new QStandardItem("/nowhere") });
        QVERIFY(f.server->start());
        Client client;
        client.send(request(1, "gone1.bin"), f.port); // transfer row 1; row 2 does not exist yet
        QVERIFY(!client.receive(100));
        client.send(request(1, "gone2.bin"), f.port); // transfer row 2 gets the text
        QVERIFY(!client.receive(100));
        QCOMPARE(f.monitor.transferCount(), 2);
        QCOMPARE(f.monitor.transferText(1, TransferMonitor::From), QString("127.0.0.1"));
        QCOMPARE(f.monitor.transferText(2, TransferMonitor::From), QString("No Such File"));
        QCOMPARE(f.server->listenerSlot(), 1); // still listening
    }

    void refusedSlotIsWoundUp()
    {
        Fixture f(60000, 100, 600);
        f.acl.item(0, AccessList::Read)->setText("no");
        QVERIFY(f.server->start());
        QVERIFY(writeFile(f.path("f.bin"), pattern(100)));
        Client client;
        client.send(request(1, "f.bin"), f.port);
        QVERIFY(!client.receive(100));
        QCOMPARE(f.monitor.transferText(1, TransferMonitor::Status), QString("Blocked"));
        QCOMPARE(f.monitor.transferText(1, TransferMonitor::From), QString("127.0.0.1"));
        QCOMPARE(f.server->slotTag(1), QString("Blocking"));
        QTimer *timer = slotTimer(f.server.get(), 1);
        QVERIFY(timer->isActive());
        QCOMPARE(timer->interval(), 600);

        // Until the slot is freed nobody answers, and dropped datagrams leave no trace line.
        f.acl.item(0, AccessList::Read)->setText("yes");
        const int lines = lineCount(f.tracePath);
        client.send(request(1, "f.bin"), f.port);
        QVERIFY(!client.receive(100));
        QCOMPARE(lineCount(f.tracePath), lines);
        QCOMPARE(f.monitor.transferCount(), 1);

        QTRY_VERIFY_WITH_TIMEOUT(f.server->listenerSlot() != 0, 5000);
        QCOMPARE(download(f, client, "f.bin", 100), pattern(100));
    }

    void traceHasOneLinePerDatagram()
    {
        Fixture f;
        QVERIFY(f.server->start());
        Client client;
        for (const QByteArray &junk : { QByteArray(), QByteArray(1, 'x'), QByteArray("\0\x09zz", 4) })
            client.send(junk, f.port);
        QTRY_COMPARE(lineCount(f.tracePath), 3);
        QCOMPARE(readFile(f.tracePath), QByteArray("1\r\n1\r\n1\r\n"));
    }

    void allSlotsBusyMeansNoListener()
    {
        Fixture f(100, 100, 60000);
        QVERIFY(f.server->start());
        QVERIFY(writeFile(f.path("f.bin"), pattern(2000)));
        std::vector<std::unique_ptr<Client>> clients;
        std::vector<quint16> tids;
        for (int i = 0; i < 30; ++i) {
            clients.push_back(std::make_unique<Client>());
            clients.back()->send(request(1, "f.bin"), f.port);
            const auto d = clients.back()->receive();
            QVERIFY2(d, qPrintable(QString("client %1 got no block").arg(i + 1)));
            tids.push_back(quint16(d->senderPort()));
        }
        QCOMPARE(f.server->listenerSlot(), 0);
        for (int slot = 1; slot <= 30; ++slot)
            QCOMPARE(f.socketStatus(slot), QString("SENDING"));
        QCOMPARE(f.server->highestTransferRowInUse(), 30);

        Client late;
        late.send(request(1, "f.bin"), f.port);
        QVERIFY(!late.receive(300)); // refresh ticks find no free slot

        // One client gives up: its slot is held, freed, and a listener reopens.
        clients[4]->send(packet(5, 0, "bye"), tids[4]);
        QTRY_COMPARE_WITH_TIMEOUT(f.server->listenerSlot(), 5, 5000);
        QCOMPARE(download(f, late, "f.bin", 2000), pattern(2000));
    }

    void captureWritesNothingToDisk()
    {
        Fixture f;
        FakeCapture capture;
        f.server->setCaptureSink(&capture);
        QVERIFY(f.server->start());
        Client client;
        client.send(request(2, "r1-confg"), f.port);
        const auto ack0 = client.receive();
        QVERIFY(ack0);
        client.send(packet(3, 1, QByteArray(512, 'h')), quint16(ack0->senderPort()));
        QVERIFY(client.receive());
        client.send(packet(3, 2, "hostname r1\n"), quint16(ack0->senderPort()));
        QCOMPARE(client.receive()->data(), packet(4, 2));
        QCOMPARE(capture.names, QStringList { f.path("r1-confg") });
        QCOMPARE(capture.data, QByteArray(512, 'h') + "hostname r1\n");
        QVERIFY(!QFile::exists(f.path("r1-confg")));
    }

    void confine_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<bool>("confined");
        QTest::addColumn<bool>("served");
        QTest::newRow("plain, confined") << QByteArray("in.bin") << true << true;
        QTest::newRow("subfolder, confined") << QByteArray("sub/in.bin") << true << true;
        QTest::newRow("dot-dot, confined") << QByteArray("../out.bin") << true << false;
        QTest::newRow("dot-dot inside, confined") << QByteArray("sub/../in.bin") << true << false;
        QTest::newRow("absolute, confined") << QByteArray("/etc/hostname") << true << false;
        QTest::newRow("link out, confined") << QByteArray("link.bin") << true << false;
        QTest::newRow("link to folder out, confined") << QByteArray("outlink/out.bin") << true << false;
        QTest::newRow("dot-dot, default joins as it stands") << QByteArray("../out.bin") << false << true;
    }
    void confine()
    {
        QFETCH(QByteArray, name);
        QFETCH(bool, confined);
        QFETCH(bool, served);
        Fixture f;
        f.server->setConfine(confined);
        QDir().mkpath(f.path("sub"));
        QVERIFY(writeFile(f.path("in.bin"), "inside"));
        QVERIFY(writeFile(f.path("sub/in.bin"), "inside"));
        QVERIFY(writeFile(f.dir->filePath("out.bin"), "outside"));
        QVERIFY(QFile::link(f.dir->filePath("out.bin"), f.path("link.bin")));
        QVERIFY(QFile::link(f.dir->path(), f.path("outlink")));
        QVERIFY(f.server->start());
        Client client;
        client.send(request(1, name), f.port);
        const auto d = client.receive(served ? 3000 : 150);
        QCOMPARE(bool(d), served);
        QCOMPARE(f.monitor.transferText(1, TransferMonitor::Status), QString(served ? "Allowed" : "Blocked"));
        if (!served)
            QCOMPARE(f.server->slotTag(1), QString("Blocking"));
    }

    void floodsOfJunkThenAGoodDownload()
    {
        Fixture f;
        QVERIFY(f.server->start());
        QVERIFY(writeFile(f.path("f.bin"), pattern(3000)));
        QRandomGenerator rng(20261122);
        const auto junk = [&rng](bool structured) {
            QByteArray bytes(int(rng.bounded(structured ? 40 : 600)), Qt::Uninitialized);
            for (char &c : bytes)
                c = char(rng.bounded(256));
            if (structured && bytes.size() >= 2) {
                static const int opcodes[] = { 0, 1, 2, 3, 4, 6, 0xffff };
                const int op = opcodes[rng.bounded(7)];
                bytes[0] = char(op >> 8);
                bytes[1] = char(op & 0xff);
            }
            return bytes;
        };
        const QList<QByteArray> nasty { request(1, "../../etc/passwd", "OCTET"), request(1, "%s%n", "mail"),
            request(2, QByteArray(600, 'n'), "netascii"), QByteArray("\0\1", 2), QByteArray("\0\1x\0oct", 8),
            request(1, "f.bin", "octet", "tsize\0") };

        // At the listener: nothing may come back, and it must keep listening.
        Client fuzzer;
        for (int i = 0; i < 3000; ++i) {
            fuzzer.send(i % 50 == 0 ? nasty[(i / 50) % nasty.size()] : junk(i % 2), f.port);
            if (i % 100 == 0)
                QTest::qWait(1);
        }
        QVERIFY(!fuzzer.receive(200));
        QCOMPARE(f.server->listenerSlot(), 1);
        QCOMPARE(f.monitor.transferCount(), 0);

        // At a running transfer, from a stranger and from the requester itself
        // (nothing that could end a transfer: no ERROR, no ACK).
        Client client;
        client.send(request(1, "f.bin"), f.port);
        const auto first = client.receive();
        QVERIFY(first);
        const quint16 tid = quint16(first->senderPort());
        for (int i = 0; i < 3000; ++i) {
            QByteArray bytes = junk(true);
            if (bytes.size() >= 2 && (bytes[1] == 4 || bytes[1] == 5) && bytes[0] == 0)
                bytes[1] = 9;
            if (i % 3 == 0)
                client.send(bytes.left(int(rng.bounded(4))), tid); // 0 to 3 bytes from the requester
            else
                fuzzer.send(junk(i % 2), tid);
            if (i % 100 == 0)
                QTest::qWait(1);
        }
        QVERIFY(!client.receive(200));
        QVERIFY(!fuzzer.receive(1));
        QByteArray got = first->data().mid(4);
        for (int block = 1; got.size() < 3000; ++block) {
            client.send(packet(4, block), tid);
            const auto d = client.receive();
            QVERIFY(d);
            QCOMPARE(blockOf(*d), block + 1);
            got += d->data().mid(4);
        }
        QCOMPARE(got, pattern(3000));
        Client fresh;
        QCOMPARE(download(f, fresh, "f.bin", 3000), pattern(3000));
    }
};

QTEST_GUILESS_MAIN(TestTftpEngine)
#include "tst_tftp_engine.moc"
