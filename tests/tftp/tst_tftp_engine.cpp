// The engine on a free loopback port. Real peers (tftp-hpa's `tftp`, `atftp`) move whole files; a hand-made
// client checks blocks, re-sends, silence, odd uploads, slot timers and junk. Then parsing and the monitor.

#include "tftp/tftp_packet.h"
#include "tftp/transfer_window.h"
#include "tftp_test_peer.h"

#include <QAction>
#include <QRandomGenerator>
#include <numeric>

using namespace tftptest;

class TestTftpEngine : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Sizes avoid multiples of 512 above 512: real clients wait after a full final block.
    void realPeers_data()
    {
        QTest::addColumn<QString>("program");
        QTest::addColumn<bool>("download");
        QTest::addColumn<qint64>("size");
        for (const char *program : { "tftp", "atftp" })
            for (bool download : { true, false })
                for (qint64 size : { 0, 511, 512, 513, 700, 1000000, 10000000 })
                    QTest::addRow("%s %s %lld", program, download ? "get" : "put", size)
                        << QString(program) << download << size;
    }
    void realPeers()
    {
        QFETCH(QString, program);
        QFETCH(bool, download);
        QFETCH(qint64, size);
        Fixture f(download ? pattern(size) : QByteArray());
        const QString local = f.dir.filePath("local.bin");
        QVERIFY(download || writeFile(local, pattern(size)));
        const QString arguments = program == "atftp"
            ? QString(download ? "-g" : "-p") + "|-r|%R|-l|%L|127.0.0.1|%P"
            : QString("-m|binary|127.0.0.1|%P|-c|") + (download ? "get|%R|%L" : "put|%L|%R");
        int code = -1;
        const QByteArray output = run(program, arguments, f.port, local, &code);
        QVERIFY2(code == 0, output.constData());
        QCOMPARE(readFile(download ? local : f.path("f.bin")), pattern(size));
        // Slot 1 cleaned (download) or held (upload); the rows themselves are checked by hand below.
        QCOMPARE(f.monitor.transferCount(), 1);
        QTRY_COMPARE(f.socket(1), QString(download ? "ready" : "Blocking"));
        QCOMPARE(f.transfer(1, TM::Status), QString(download ? "FINISHED OK" : "Allowed"));
    }

    // 512 bytes end with an empty block, 1024 do not; block 255 -> 256 is 0x00ff -> 0x0100 on the wire.
    void blockSequence()
    {
        for (const QList<int> &lengths :
            { QList<int> { 0 }, { 512, 0 }, { 512, 512 }, { 512, 512, 512 }, QList<int>(300, 512) << 10 }) {
            const qint64 size = std::accumulate(lengths.begin(), lengths.end(), 0);
            Fixture f(pattern(size));
            Client client;
            client.send(request(1, "f.bin"), f.port);
            QByteArray got, first;
            for (int i = 0; i < lengths.size(); ++i) {
                const QByteArray d = client.next();
                QCOMPARE(d.left(4), packet(3, i + 1));
                QCOMPARE(d.size() - 4, lengths[i]);
                if (i == 0) { // the transfer has its own port; the listener moved on to slot 2
                    QVERIFY(client.peer != f.port);
                    const QString ports = QString("%1\t%2\t").arg(client.peer).arg(client.socket.localPort());
                    QCOMPARE(f.monitor.socketLine(1), "socket\t1\t1\t" + ports + "SENDING\t");
                    QCOMPARE(f.monitor.socketLine(2), QString("socket\t2\t2\t%1\t0\tListen\t").arg(f.port));
                    QCOMPARE(f.monitor.transferLine(1),
                        QString("transfer\t1\tf.bin\t127.0.0.1\t127.0.0.1\tAllowed\t"));
                    first = d;
                } else if (i == 1 && lengths.size() > 2) { // a repeated ACK re-sends, an ACK of 0 block 1
                    QCOMPARE(client.ask(packet(4, 1)), d);
                    QCOMPARE(client.ask(packet(4, 0)), first);
                }
                got += d.mid(4);
                client.send(packet(4, i + 1), client.peer);
            }
            QCOMPARE(got, pattern(size));
            QVERIFY(f.traced(1 + lengths.size() + (lengths.size() > 2 ? 2 : 0)));
            QVERIFY2(client.quiet(), "a block after the final one");
            QCOMPARE(f.transfer(1, TM::Status), QString("FINISHED OK"));
            QCOMPARE(f.socket(1), QString("ready"));
            QCOMPARE(f.server.highestTransferRowInUse(), 0);
            Fixture other({}, false); // a second server cannot take the same port, and says why
            other.server.setPort(f.port);
            QVERIFY(!other.server.start() && other.server.errorString().contains(QString::number(f.port)));
        }
    }

    void unsupportedRequestsGetSilence()
    {
        Fixture f(pattern(100));
        Client client;
        int sent = 0;
        for (const int opcode : { 1, 2 })
            for (const QByteArray &tail : { bytes("OCTET\0"), bytes("netascii\0"), bytes("mail\0"),
                     bytes("octet\0tsize\0000\0"), bytes("octet\0blksize\0008192\0") }) {
                client.send(bytes("\0") + char(opcode) + "f.bin" + '\0' + tail, f.port);
                QVERIFY(f.traced(++sent));
                QVERIFY2(client.quiet(), tail.constData());
                QCOMPARE(f.socket(1), QString(opcode == 1 ? "SENDING" : "RECEIVING"));
            }
        QCOMPARE(f.monitor.transferCount(), 0);
        QCOMPARE(f.download(client, "f.bin"), pattern(100)); // and the file is untouched
    }

    // Blocks land where their numbers put them, duplicates included; a shorter
    // upload leaves the old file's tail; then the slot is held for a while.
    void uploadWritesAtBlockOffsetsAndHolds()
    {
        Fixture f(QByteArray(2000, 'A'));
        Client client;
        QCOMPARE(client.ask(request(2, "f.bin"), f.port), packet(4, 0));
        QVERIFY(client.peer != f.port);
        QCOMPARE(f.socket(1), QString("RECEIVING"));
        QCOMPARE(readFile(f.path("f.bin")), QByteArray(2000, 'A')); // not truncated by the request
        for (const auto &[block, fill] :
            QList<QPair<int, QByteArray>> { { 3, "c" }, { 1, "a" }, { 1, "a" }, { 2, "b" }, { 4, "" } }) {
            QCOMPARE(client.ask(packet(3, block, block == 4 ? "e" : fill.repeated(512))), packet(4, block));
        }
        QCOMPARE(readFile(f.path("f.bin")),
            QByteArray(512, 'a') + QByteArray(512, 'b') + QByteArray(512, 'c') + "e" + QByteArray(463, 'A'));
        QCOMPARE(f.server.receivedBlocks(1), 5);
        // Held: "Blocking" with the hold interval armed, then free again.
        QCOMPARE(f.socket(1), QString("Blocking"));
        QCOMPARE(f.slotInterval(1), 60000);
        f.slotTimer(1)->start(0); // the hold runs out
        QTRY_COMPARE(f.socket(1), QString("ready"));
        QCOMPARE(f.socket(1, TM::LocalPort), QString());
    }

    // Every datagram leaves one trace line, junk included. A missing file and a client's ERROR are
    // written into the transfer row numbered like the deciding access row (made row 2 here); an
    // ERROR on a transfer is shown and holds the slot.
    void errorFromClientAndTrace()
    {
        Fixture f(pattern(2000), false);
        f.acl.appendEntry({ "127.0.0.128", maskDisplayForm(25), "yes", "yes", "/nowhere", 25 });
        f.acl.insertRow(0, f.acl.takeRow(1));
        QVERIFY(f.server.start());
        Client client;
        for (const QByteArray &junk : { QByteArray(), bytes("x"), bytes("\0\x09zz") })
            client.send(junk, f.port);
        QVERIFY(f.traced(3) && client.quiet());
        QCOMPARE(readFile(f.tracePath), bytes("1\r\n1\r\n1\r\n"));
        client.send(request(1, "x1"), f.port);
        client.send(request(1, "x2"), f.port);
        QVERIFY(f.traced(5) && client.quiet());
        QCOMPARE(f.transfer(1, TM::From), QString("127.0.0.1"));
        QCOMPARE(f.monitor.transferLine(2), QString("transfer\t2\tx2\tNo Such File\t127.0.0.1\tAllowed\t"));
        QCOMPARE(client.ask(request(1, "f.bin"), f.port).left(4), packet(3, 1));
        client.send(packet(5, 3, bytes("disk full\0")), client.peer);
        QVERIFY(f.traced(7) && client.quiet()); // never an ERROR or anything else back
        QCOMPARE(f.transfer(2, TM::From), QString("\3disk full"));
        QCOMPARE(f.monitor.socketLine(1).section('\t', 3),
            QString("ERROR\t%1\tBlocking\t\3disk full").arg(client.socket.localPort()));
        QCOMPARE(f.slotInterval(1), 60000);
    }

    // Thirty transfers at once; once one ends, the rest finish each from where it stood, and every slot
    // is given back.
    void allSlotsBusyMeansNoListener()
    {
        Fixture f(pattern(2000), true, 100, 100);
        std::vector<std::unique_ptr<Client>> clients;
        for (int i = 0; i < 30; ++i) {
            clients.push_back(std::make_unique<Client>());
            QCOMPARE(clients.back()->ask(request(1, "f.bin"), f.port).left(4), packet(3, 1));
            QCOMPARE(f.socket(i + 1), QString("SENDING"));
        }
        QCOMPARE(f.server.listenerSlot(), 0);
        QCOMPARE(f.server.highestTransferRowInUse(), 30);
        Client late;
        late.send(request(1, "f.bin"), f.port);
        // One client gives up: its slot is held, freed, and a listener reopens.
        clients[4]->send(packet(5, 0, "bye"), clients[4]->peer);
        QTRY_COMPARE_WITH_TIMEOUT(f.server.listenerSlot(), 5, 30000);
        QVERIFY(late.quiet()); // refresh ticks found no free slot: nobody heard the request
        QCOMPARE(f.download(late, "f.bin"), pattern(2000));
        for (int i = 0; i < 30; ++i) {
            if (i == 4) // the one that gave up
                continue;
            clients[i]->send(packet(4, 1), clients[i]->peer);
            QCOMPARE(clients[i]->blocks(2), pattern(2000).mid(512));
        }
        QTRY_COMPARE(f.server.highestTransferRowInUse(), 0);
        QTRY_VERIFY(f.server.listenerSlot() != 0); // a refresh tick finds a free slot again
        // A finished read writes its row by slot number: the late one, on slot 5, left its own (31) alone.
        QCOMPARE(f.monitor.transferCount(), 31);
        for (int row = 1; row <= 31; ++row)
            QCOMPARE(f.transfer(row, TM::Status), QString(row <= 30 ? "FINISHED OK" : "Allowed"));
    }

    // A refused request holds its slot for the refusal interval: nobody answers and dropped datagrams leave
    // no trace line until the slot is freed. (Names and links leaving the folder: http_server.)
    void confine()
    {
        const QList<std::tuple<QByteArray, bool, QByteArray>> cases { { "sub/in.bin", true, "inside" },
            { "sub/../in.bin", true, "" }, { "outlink/out.bin", true, "" },
            { "../out.bin", false, "outside" } }; // name, confined, what is served
        for (const auto &[name, confined, served] : cases) {
            Fixture f({}, false, 60000, 100);
            f.server.setConfine(confined);
            QVERIFY(QDir().mkpath(f.path("sub")) && writeFile(f.path("sub/in.bin"), "inside"));
            QVERIFY(writeFile(f.path("in.bin"), "inside") && writeFile(f.dir.filePath("out.bin"), "outside"));
            QVERIFY(QFile::link(f.dir.path(), f.path("outlink")));
            QVERIFY(f.server.start());
            Client client;
            client.send(request(1, name), f.port);
            const QByteArray answer = served.isEmpty()
                ? QByteArray(f.traced(1) && client.quiet() ? "" : "<answered>")
                : client.next().mid(4);
            QCOMPARE(name + ": " + answer, name + ": " + served);
            QCOMPARE(f.transfer(1, TM::Status), QString(served.isEmpty() ? "Blocked" : "Allowed"));
            QCOMPARE(f.server.slotTag(1) == "Blocking", served.isEmpty());
            if (!served.isEmpty())
                continue;
            QCOMPARE(f.slotInterval(1), 60000);
            const QByteArray trace = readFile(f.tracePath);
            client.send(request(1, "in.bin"), f.port);
            f.slotTimer(1)->start(0); // the refusal's hold runs out
            QTRY_VERIFY(f.server.listenerSlot() != 0);
            QVERIFY(client.quiet());
            QCOMPARE(readFile(f.tracePath), trace);
            QCOMPARE(f.monitor.transferCount(), 1);
            QCOMPARE(f.download(client, "in.bin"), QByteArray("inside"));
        }
    }

    void floodsOfJunkThenAGoodDownload()
    {
        Fixture f(pattern(3000));
        Client fuzzer, client;
        QByteArray got = client.ask(request(1, "f.bin"), f.port).mid(4);
        // Random bytes, every other datagram behind a plausible header, now and then a bad request, at the
        // listener and the transfer; the requester itself sends 0-3 bytes. Small batches, each traced in full
        // before the next, so none is lost to a full socket buffer however slow the machine.
        QRandomGenerator rng(20261122);
        const QList<QByteArray> nasty { bytes("\0\1"), bytes("\0\1x\0oct"), request(1, "%s%n", "mail"),
            request(2, QByteArray(600, 'n'), "netascii"), request(1, "f.bin") + "tsize" };
        qsizetype sent = 1; // the request
        const auto sendFrom = [&sent](Client &from, const QByteArray &datagram, quint16 port) {
            sent += from.socket.writeDatagram(datagram, QHostAddress::LocalHost, port) >= 0;
        };
        const auto allHandled = [&] {
            const QDeadlineTimer deadline(30000);
            while (readFile(f.tracePath).count('\n') != sent) {
                if (deadline.hasExpired())
                    return false;
                QCoreApplication::processEvents();
            }
            return true;
        };
        for (int i = 0; i < 6000; ++i) {
            QByteArray junk = tw::test::junk(rng, i % 2 ? 36 : 600);
            if (i % 2)
                junk.prepend(packet(rng.bounded(7), rng.bounded(65536)));
            if (const int op = TftpPacket::opcode(junk); op >= 3 && op <= 5)
                junk[1] = 6; // anyone's DATA, ACK or ERROR is served: that is checked elsewhere
            sendFrom(fuzzer, i % 100 == 0 ? nasty[i / 100 % 5] : junk, i % 4 < 2 ? f.port : client.peer);
            if (i % 3 == 0)
                sendFrom(client, packet(1 + i % 4, 1).left(i / 4 % 4), client.peer);
            if (i % 25 == 24)
                QVERIFY2(allHandled(), qPrintable(QString("%1 datagrams sent, not all traced").arg(sent)));
        }
        QVERIFY(client.quiet() && fuzzer.quiet());
        QCOMPARE(f.server.listenerSlot(), 2);
        QCOMPARE(f.monitor.transferCount(), 1);
        client.send(packet(4, 1), client.peer);
        QCOMPARE(got + client.blocks(2), pattern(3000));
        Client fresh;
        QCOMPARE(f.download(fresh, "f.bin"), pattern(3000));
    }

    // Only the mode's position from the end counts; the name is taken as it stands.
    void requestParsing()
    {
        const QList<QPair<QByteArray, std::optional<QByteArray>>> cases { { bytes("\0\1\0octet\0"), "" },
            { bytes("\0\1a\\b\0octet\0"), "a\\b" }, { bytes("\0\1abcoctet\0"), "ab" },
            { bytes("\0\1f\0octet"), {} }, { bytes("\0\1octet\0"), {} }, { QByteArray(), {} } };
        for (const auto &[datagram, name] : cases)
            QCOMPARE(TftpPacket::octetRequestName(datagram), name);
        // An ACK far past the end plans an empty final block, never a negative read.
        QCOMPARE(TftpPacket::laterBlock(100, 50).length, 0);
    }

    void monitorRowsAndWindow()
    {
        // Writes address rows by number; missing rows and columns are ignored.
        TM monitor;
        for (int i = 1; i <= 6; ++i)
            QCOMPARE(monitor.addTransfer(QString("f%1").arg(i), "a", "b", i % 2 ? "Blocked" : "Allowed"), i);
        monitor.setTransferText(1, TM::From, "No Such File");
        for (int row : { -1, 0, 7, 31 })
            monitor.setTransferText(row, TM::Status, "FINISHED OK");
        for (int slot : { 0, 31 })
            monitor.setSocketText(slot, TM::SocketStatus, "Listen");
        monitor.setTransferText(1, 7, "bad column");
        QCOMPARE(monitor.transferCount(), 6);
        QCOMPARE(monitor.transferLine(1), QString("transfer\t1\tf1\tNo Such File\tb\tBlocked\t"));
        for (int slot = 1; slot <= 30; ++slot)
            QCOMPARE(monitor.socketLine(slot), QString("socket\t%1\t%1\t\t\tready\t").arg(slot));
        // "Clear Old Transfers" spares the rows running transfers may still write, and the allowed ones.
        TransferWindow window(&monitor);
        QSignalSpy clear(&window, &TransferWindow::clearOldTransfersRequested);
        window.findChild<QAction *>("MnuClearOldTransfers")->trigger();
        QCOMPARE(clear.count(), 1);
        monitor.clearOldTransfers(3);
        QCOMPARE(monitor.transferCount(), 5); // f5 went, a write to row 7 did not turn f6 into "FINISHED OK"
        QCOMPARE(monitor.transferText(5, TM::Filename), QString("f6"));
        monitor.clearOldTransfers(0);
        QCOMPARE(monitor.transferCount(), 0);
    }
};

QTEST_MAIN(TestTftpEngine)
#include "tst_tftp_engine.moc"
