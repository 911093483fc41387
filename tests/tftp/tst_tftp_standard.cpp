// The standard TFTP profile's engine on a free loopback port. Real clients (atftp, curl, tftp-hpa's tftp)
// move whole files with options; a hand-made client checks what they cannot show: the OACK, roll-over,
// windows, re-sending on timeout, strangers and cut-off uploads. (A failed access decision:
// app_tftp_profile.)

#include "tftp/capture_sink.h"
#include "tftp/tftp_options.h"
#include "tftp_test_peer.h"

#include <QCryptographicHash>
#include <QRandomGenerator>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace tftptest;

namespace {
// Large images are written in 1 MB pieces so the test never holds two copies of them.
bool writeLarge(const QString &path, qint64 size)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    const QByteArray piece = pattern(1 << 20);
    for (qint64 done = 0; done < size; done += piece.size())
        if (file.write(piece.constData(), qMin<qint64>(piece.size(), size - done)) <= 0)
            return false;
    return true;
}
QByteArray digest(const QString &path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha1);
    return file.open(QIODevice::ReadOnly) && hash.addData(&file) ? hash.result() : "<unreadable>";
}
} // namespace

class TestTftpStandard : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Each real client with the options it offers; the progress column counts the bytes on the wire. (A
    // missing file answered at once: strangersAndErrors.)
    void realClients_data()
    {
        QTest::addColumn<QString>("program");
        QTest::addColumn<QString>("arguments");
        QTest::addColumn<bool>("download");
        QTest::addColumn<qint64>("size");
        const auto row = [](const char *program, const QString &arguments, bool download, qint64 size) {
            QTest::addRow("%s %s", program, qPrintable(arguments))
                << QString(program) << arguments << download << size;
        };
        row("atftp", "--option|blksize 1468|--option|windowsize 16|-g|-r|%R|-l|%L|127.0.0.1|%P", true,
            100000000);
        row("atftp", "--option|blksize 1468|--option|tsize|-p|-r|%R|-l|%L|127.0.0.1|%P", false, 40000000);
        row("atftp", "--option|tsize|-g|-r|%R|-l|%L|127.0.0.1|%P", true, 512 * 40); // an exact multiple
        row("curl", "-sS|-o|%L|tftp://127.0.0.1:%P/%R", true, 1024 * 1024);
        row("curl", "-sS|--tftp-blksize|8192|-o|%L|tftp://127.0.0.1:%P/%R", true, 3000000);
        row("curl", "-sS|-T|%L|tftp://127.0.0.1:%P/%R", false, 700000);
        row("tftp", "-m|binary|127.0.0.1|%P|-c|get|%R|%L", true, 1024);
        // Every byte value, line ends among them, goes through netascii's CR LF and CR NUL and back.
        row("tftp", "-m|netascii|127.0.0.1|%P|-c|get|%R|%L", true, 100000);
        row("tftp", "-m|netascii|127.0.0.1|%P|-c|put|%L|%R", false, 100000);
    }
    void realClients()
    {
        QFETCH(QString, program);
        QFETCH(QString, arguments);
        QFETCH(bool, download);
        QFETCH(qint64, size);
        StandardFixture f;
        f.server.setRetransmitInterval(0);
        const QString local = f.dir.filePath("local.bin"), remote = f.path("f.bin");
        QVERIFY(writeLarge(download ? remote : local, size));
        if (!download)
            QVERIFY(writeFile(remote, "an older, longer file than none at all"));
        int code = -1;
        const QByteArray output = run(program, arguments, f.port, local, &code);
        QVERIFY2(code == 0, output.constData());
        QTRY_COMPARE(f.monitor.transferCount(), 1);
        QCOMPARE(digest(local), digest(remote));
        QTRY_COMPARE(f.transfer(1, TM::Status), QString(download ? "FINISHED OK" : "Allowed"));
        const qint64 wire
            = arguments.contains("netascii") ? TftpOptions::toNetascii(pattern(size)).size() : size;
        QTRY_COMPARE(f.transfer(1, TM::DataSentReceived), QString("%1 bytes").arg(wire));
        QVERIFY(QDir(f.folder).entryList(QDir::Hidden | QDir::Files).size() == 1); // no temporary file left
        QTRY_COMPARE(f.socket(2), QString("ready")); // no hold: the transfer's port is closed at once
    }

    // Netascii's wire form, read by hand; tsize is left out (the wire length is not known ahead). Reading
    // it back, a CR pair split between blocks included, is realClients' tftp-hpa put.
    void netasciiWireForm()
    {
        const QByteArray text = "hostname r1\ninterface e0\n ip address 127.0.0.5\r\nend\n";
        StandardFixture f(text);
        Client client;
        QCOMPARE(client.ask(request(1, "f.bin", "NetASCII", bytes("tsize\0000\0")), f.port),
            packet(3, 1, TftpOptions::toNetascii(text)));
    }

    // What the OACK says for each request; no accepted option means no OACK. Then the first block's size.
    // (No options at all, and blksize 8 kept: strangersAndErrors and blockNumbersRollOver.)
    void optionNegotiation_data()
    {
        QTest::addColumn<QByteArray>("options");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<int>("blockSize");
        QTest::newRow("all four, mixed case")
            << bytes("BlkSize\0001468\0TSIZE\0000\0timeout\0003\0windowsize\00016\0")
            << bytes("blksize\0001468\0tsize\0001000\0timeout\0003\0windowsize\00016\0") << 1468;
        QTest::newRow("too large is trimmed")
            << bytes("blksize\00099999\0") << bytes("blksize\00065464\0") << 65464;
        // A window that would not fit the socket's send buffer is cut to what does.
        QUdpSocket probe;
        probe.bind(QHostAddress::LocalHost, 0);
        const int fits
            = probe.socketOption(QAbstractSocket::SendBufferSizeSocketOption).toInt() / (65464 + 68);
        QTest::newRow("window fits the buffer")
            << bytes("blksize\00065464\0windowsize\00065535\0")
            << bytes("blksize\00065464\0windowsize\0") + QByteArray::number(qMax(1, fits)) + '\0' << 65464;
        QTest::newRow("too small and unreadable left out")
            << bytes("blksize\0007\0timeout\0000\0windowsize\0x\0tsize\0-1\0") << QByteArray() << 512;
        QTest::newRow("unknown left out, repeat ignored")
            << bytes("multicast\0\0blksize\00016\0blksize\00032\0timeout\000256\0")
            << bytes("blksize\00016\0") << 16;
    }
    void optionNegotiation()
    {
        QFETCH(QByteArray, options);
        QFETCH(QByteArray, reply);
        QFETCH(int, blockSize);
        StandardFixture f(pattern(1000));
        Client client;
        client.send(request(1, "f.bin", "octet", options), f.port);
        if (!reply.isEmpty()) { // the OACK, and DATA 1 only after ACK 0
            QCOMPARE(client.next(), bytes("\0\6") + reply);
            QVERIFY(client.quiet()); // anything sent with the OACK would be here already
            client.send(packet(4, 0), client.peer);
        }
        QCOMPARE(client.next(), packet(3, 1, pattern(qMin(1000, blockSize))));
    }

    // A file of 65,537 8-byte blocks plus one: block numbers go 65535, 0, 1, and the last is short.
    void blockNumbersRollOver()
    {
        const qint64 size = 65537 * 8 + 3;
        StandardFixture f(pattern(size));
        Client client;
        const QByteArray options = bytes("blksize\0008\0windowsize\00064\0");
        QCOMPARE(client.ask(request(1, "f.bin", "octet", options), f.port), bytes("\0\6") + options);
        client.send(packet(4, 0), client.peer);
        QByteArray got;
        for (qint64 block = 1; block <= 65538; ++block) {
            const QByteArray d = client.next();
            QCOMPARE(d.left(4), packet(3, int(block & 0xffff)));
            got += d.mid(4);
            if (block % 64 == 0 || block == 65538)
                client.send(packet(4, int(block & 0xffff)), client.peer);
        }
        QCOMPARE(got, pattern(size));
        QTRY_COMPARE(f.transfer(1, TM::Status), QString("FINISHED OK"));
        // On paper, past 4 GiB: the last block of a 5 GiB image at 512 bytes.
        QCOMPARE(TftpOptions::wireBlock(5LL * 1024 * 1024 * 1024 / 512 + 1), 1);
    }

    // A repeated ACK of the block before a window brings the window back at once (once); other stale
    // ACKs send nothing; an ACK inside the window restarts after it. Netascii is translated block by
    // block, CR pairs split across blocks, the same again when re-sent. Silence re-sends five times,
    // then the transfer is given up and its port closed.
    void windowsAndTimeouts()
    {
        StandardFixture f;
        QByteArray lines;
        for (int i = 0; i < 300; ++i)
            lines += QByteArray(i % 7, 'x') + (i % 3 ? "\n" : "\r");
        QVERIFY(writeFile(f.path("t.txt"), lines));
        const QByteArray wire = TftpOptions::toNetascii(lines),
                         ask = request(1, "t.txt", "netascii", bytes("blksize\0008\0windowsize\0004\0"));
        const int blocks = int(wire.size() / 8 + 1);
        const auto window = [&](Client &c, int from, int to) {
            for (int b = from; b <= qMin(to, blocks); ++b)
                if (c.next() != packet(3, b, wire.mid((b - 1) * 8, 8)))
                    return false;
            return true;
        };
        Client client;
        QVERIFY(client.ask(ask, f.port).startsWith(bytes("\0\6")));
        client.send(packet(4, 0), client.peer);
        QVERIFY(window(client, 1, 4));
        client.send(packet(4, 4), client.peer);
        QVERIFY(window(client, 5, 8));
        client.send(packet(4, 4), client.peer); // the client lost 5-8 and timed out
        QVERIFY(window(client, 5, 8));
        client.send(packet(4, 4), client.peer); // again: already answered for this window
        client.send(packet(4, 2), client.peer); // stale
        client.send(packet(4, 40), client.peer); // from the future
        client.send(packet(4, 6), client.peer); // inside the window: 7 was lost
        QVERIFY(window(client, 7, 10)); // and nothing came before it

        f.server.setRetransmitInterval(150); // for transfers from here on
        Client quiet;
        QVERIFY(quiet.ask(ask, f.port).startsWith(bytes("\0\6")));
        quiet.send(packet(4, 0), quiet.peer);
        for (int round = 0; round < 6; ++round) // the window, then again five times
            QVERIFY(window(quiet, 1, 4));
        QTRY_COMPARE(f.transfer(2, TM::Status), QString("TIMED OUT"));
        QCOMPARE(f.transfer(2, TM::DataSentReceived), QString("0 bytes"));
        QTRY_COMPARE(f.socket(3), QString("ready"));
        // An unanswered OACK is re-sent too.
        const QByteArray oack = quiet.ask(request(1, "t.txt", "octet", bytes("tsize\0000\0")), f.port);
        QCOMPARE(quiet.next(), oack);
        // The first transfer ran on all along, and ends whole.
        for (int last = 10; last < blocks; last += 4) {
            client.send(packet(4, last), client.peer);
            QVERIFY(window(client, last + 1, last + 4));
        }
        client.send(packet(4, blocks), client.peer);
        QTRY_COMPARE(f.transfer(1, TM::Status), QString("FINISHED OK"));
    }

    // A stranger on a transfer's port gets ERROR 5 and the transfer carries on; an ERROR on the
    // listening port is ignored; the client's own ERROR ends the transfer in the request's own row.
    // Refusals come from a fresh port and leave the listener answering.
    void strangersAndErrors()
    {
        StandardFixture f(pattern(2000));
        Client client, stranger;
        QCOMPARE(stranger.ask(request(1, "missing.bin"), f.port), error(1, "File not found"));
        QVERIFY(stranger.peer != f.port);
        stranger.send(error(0, "junk"), f.port);
        stranger.send(packet(4, 1), f.port);
        QCOMPARE(client.ask(request(1, "f.bin"), f.port), packet(3, 1, pattern(512)));
        QVERIFY(!stranger.socket.hasPendingDatagrams());
        stranger.send(packet(4, 1), client.peer);
        QCOMPARE(stranger.next(), error(5, "Unknown transfer ID"));
        QCOMPARE(client.ask(packet(4, 1)), packet(3, 2, pattern(1024).mid(512))); // and nothing before it
        client.send(error(0, "bye"), client.peer);
        QTRY_COMPARE(f.transfer(2, TM::From), QString("bye"));
        QCOMPARE(f.transfer(1, TM::From), QString("No Such File")); // the access row (1) is not touched
        QTRY_COMPARE(f.socket(2), QString("ready"));
        // A name leaving the folder: refused while confined, served when not.
        QVERIFY(writeFile(f.dir.filePath("out.bin"), "outside"));
        for (const bool confined : { true, false }) {
            f.server.setConfine(confined);
            f.server.waitForEngine();
            Client c;
            QCOMPARE(c.ask(request(1, "../out.bin"), f.port),
                confined ? error(2, "Access violation") : packet(3, 1, "outside"));
        }
        // Requests with their answers; reads are refused from here on. A request without its last NUL
        // and an option without a value are read as tftp-hpa reads them.
        f.acl.appendEntry({ "127.0.0.1", maskDisplayForm(32), "no", "yes", f.folder, 32 });
        f.server.waitForEngine();
        const QList<QPair<QByteArray, QByteArray>> answers { { request(1, "f.bin", "mail"), packet(5, 4) },
            { request(2, "f.bin", "binary"), packet(5, 4) }, { bytes("\0\2f.bin\0"), packet(5, 4) },
            { bytes("\0\1f.bin\0octet"), packet(5, 2) }, { request(1, "nothing.bin"), packet(5, 2) },
            { request(2, "g.bin"), packet(4, 0) }, { bytes("\0\2h.bin\0octet\0blksize"), packet(4, 0) } };
        for (const auto &[datagram, reply] : answers) {
            Client c;
            QCOMPARE(c.ask(datagram, f.port).left(4), reply);
            QVERIFY(c.peer != f.port);
        }
    }

    // An upload cut off half-way, by a full disk or by a refused rename leaves the old file as it was;
    // a finished one replaces it whole. A partial upload has no name anyone could fetch, and a new
    // file follows the umask.
    void uploadsReplaceWhole()
    {
        StandardFixture f(QByteArray(3000, 'A'));
        f.server.setRetransmitInterval(100);
        const auto names = [&] {
            return QDir(f.folder).entryList(QDir::Hidden | QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot);
        };
        Client client;
        QCOMPARE(client.ask(request(2, "f.bin"), f.port), packet(4, 0));
        QCOMPARE(client.ask(packet(3, 1, QByteArray(512, 'b'))), packet(4, 1));
        QCOMPARE(names(), QStringList { "f.bin" });
        QCOMPARE(client.ask(packet(3, 1, QByteArray(512, 'b'))), packet(4, 1)); // repeated: ACKed again
        for (int i = 0; i < 5; ++i) // silence: the ACK is re-sent, then the upload is given up
            QCOMPARE(client.next(), packet(4, 1));
        QTRY_COMPARE(f.transfer(1, TM::Status), QString("TIMED OUT"));
        f.server.setRetransmitInterval(3600000); // from here on, no re-sends to race with the client
        QCOMPARE(readFile(f.path("f.bin")), QByteArray(3000, 'A'));
        QCOMPARE(names(), QStringList { "f.bin" });

        const mode_t oldMask = ::umask(077);
        Client second;
        QCOMPARE(second.ask(request(2, "f.bin"), f.port), packet(4, 0));
        QCOMPARE(second.ask(packet(3, 1, QByteArray(512, 'c'))), packet(4, 1));
        QCOMPARE(readFile(f.path("f.bin")), QByteArray(3000, 'A')); // not yet
        QCOMPARE(second.ask(packet(3, 2, "end")), packet(4, 2));
        QCOMPARE(readFile(f.path("f.bin")), QByteArray(512, 'c') + "end");
        QTRY_COMPARE(f.transfer(2, TM::DataSentReceived), QString("515 bytes"));
        Client fresh;
        QCOMPARE(fresh.ask(request(2, "new.bin"), f.port), packet(4, 0));
        QCOMPARE(fresh.ask(packet(3, 1, "new")), packet(4, 1));
        ::umask(oldMask);
        struct stat st
        {
        };
        QCOMPARE(::stat(qPrintable(f.path("new.bin")), &st), 0);
        QCOMPARE(st.st_mode & 0777, mode_t(0600));
        // A folder where the file would go: the rename is refused, which is not a full disk.
        QVERIFY(QDir(f.folder).mkpath("d/inside"));
        Client blocked;
        QCOMPARE(blocked.ask(request(2, "d"), f.port), packet(4, 0));
        QCOMPARE(blocked.ask(packet(3, 1, "x")), error(2, "Access violation"));
        QTRY_COMPARE(f.transfer(4, TM::Status), QString("ACCESS VIOLATION"));
        // A full disk (here a file-size limit): ERROR 3, the old file kept, no temporary one.
        Client client3;
        QCOMPARE(client3.ask(request(2, "f.bin"), f.port), packet(4, 0));
        const auto oldHandler = ::signal(SIGXFSZ, SIG_IGN);
        rlimit old {};
        ::getrlimit(RLIMIT_FSIZE, &old);
        const rlimit small { 1000, old.rlim_max };
        ::setrlimit(RLIMIT_FSIZE, &small);
        QByteArray reply;
        // Blocks are written in chunks: the last one, short, writes what is held back.
        for (int block = 1; block <= 4 && !reply.startsWith(bytes("\0\5")); ++block) {
            client3.send(packet(3, block, block < 4 ? QByteArray(512, 'b') : QByteArray("b")), client3.peer);
            reply = client3.next();
        }
        ::setrlimit(RLIMIT_FSIZE, &old);
        ::signal(SIGXFSZ, oldHandler);
        QCOMPARE(reply, error(3, "Disk full or allocation exceeded"));
        QTRY_COMPARE(f.transfer(5, TM::Status), QString("DISK FULL"));
        QCOMPARE(readFile(f.path("f.bin")), QByteArray(512, 'c') + "end");
        QCOMPARE(names(), QStringList({ "d", "f.bin", "new.bin" }));
    }

    // The classic profile: progress in the request's own row, a stranger's ACK served (the block still goes
    // to the requester), and an ERROR on the listener shown and the listener held until the refresh.
    void classicProgressAndStrangers()
    {
        Fixture f(pattern(2000), false);
        f.server.setIntervals(60000, 300, 60000);
        QVERIFY(f.server.start());
        Client client, stranger;
        QCOMPARE(client.ask(request(1, "f.bin"), f.port), packet(3, 1, pattern(512)));
        QCOMPARE(f.transfer(1, TM::DataSentReceived), QString());
        stranger.send(packet(4, 1), client.peer);
        QCOMPARE(client.next(), packet(3, 2, pattern(1024).mid(512)));
        QVERIFY(f.traced(2) && stranger.quiet());
        QCOMPARE(f.transfer(1, TM::DataSentReceived), QString("512 of 2000 bytes (25%)"));
        client.send(packet(4, 2), client.peer);
        QCOMPARE(client.blocks(3), pattern(2000).mid(1024));
        QTRY_COMPARE(f.transfer(1, TM::Status), QString("FINISHED OK"));
        QCOMPARE(f.transfer(1, TM::DataSentReceived), QString("2000 bytes"));

        QCOMPARE(client.ask(request(2, "up.bin"), f.port), packet(4, 0));
        QCOMPARE(client.ask(packet(3, 1, QByteArray(512, 'u'))), packet(4, 1));
        QCOMPARE(f.transfer(2, TM::DataSentReceived), QString("512 bytes"));
        stranger.send(packet(3, 2, "end"), client.peer);
        QCOMPARE(client.next(), packet(4, 2));
        QCOMPARE(f.transfer(2, TM::DataSentReceived), QString("515 bytes"));
        QCOMPARE(readFile(f.path("up.bin")), QByteArray(512, 'u') + "end");

        const int listener = f.server.listenerSlot();
        stranger.send(error(0, "who"), f.port);
        QTRY_COMPARE(f.monitor.socketText(listener, TM::SocketStatus), QString("Blocking"));
        QCOMPARE(f.monitor.socketText(listener, TM::SocketError), QString("who"));
        QVERIFY(stranger.quiet());
        QTRY_VERIFY(f.server.listenerSlot() != 0 && f.server.listenerSlot() != listener);
    }

    // Junk at the listener and at a running transfer, from strangers and the requester: no crash, strangers
    // get ERROR replies at most, and both the running transfer and a fresh one finish intact. Capture
    // catches an upload without touching the disk.
    void junkThenGoodTransfers()
    {
        StandardFixture f(pattern(3000));
        Client client, fuzzer;
        QVERIFY(client.ask(request(1, "f.bin", "octet", bytes("blksize\000600\0")), f.port)
                    .startsWith(bytes("\0\6")));
        QRandomGenerator rng(20261123);
        const QList<QByteArray> nasty { bytes("\0\1"), bytes("\0\1x\0oct"), request(1, "%s%n", "mail"),
            request(2, QByteArray(600, 'n'), "netascii", bytes("blksize")),
            request(1, "f.bin", "octet", bytes("tsize\0")),
            request(1, "../../etc/passwd", "octet", bytes("blksize\0-5\0windowsize\00099999999999\0")) };
        for (int i = 0; i < 3000; ++i) {
            QByteArray junk = tw::test::junk(rng, i % 2 ? 40 : 700);
            if (i % 2)
                junk.prepend(packet(rng.bounded(9), rng.bounded(65536)));
            fuzzer.send(i % 50 == 0 ? nasty[i / 50 % nasty.size()] : junk, i % 3 ? f.port : client.peer);
            if (i % 100 == 0)
                QCoreApplication::processEvents();
        }
        // Only ERRORs and refusals come back, up to the answer to a last request for a missing file.
        fuzzer.send(request(1, "the-end.bin"), f.port);
        for (QByteArray reply; reply != error(1, "File not found");) {
            reply = fuzzer.next();
            QVERIFY2(reply.size() > 1 && reply[0] == 0 && reply[1] >= 3 && reply[1] <= 6,
                reply.toHex().constData());
        }
        // The flood may overrun the transfer socket's buffer while the engine is descheduled: once a
        // stranger sent after it is answered, the backlog is read and the requester's ACK cannot be dropped.
        Client marker;
        for (QByteArray reply; !reply.startsWith(bytes("\0\5\0\5"));) {
            marker.send(packet(4, 1), client.peer);
            reply = marker.next(5000);
        }
        client.send(packet(4, 0), client.peer);
        QCOMPARE(client.blocks(1, 600), pattern(3000));

        struct : CaptureSink
        {
            QStringList seen;
            bool capturing() const override { return true; }
            void CaptureFileName(const QString &path) override { seen << path; }
            void CaptureData(const QByteArray &data) override { seen << QString::fromLatin1(data); }
        } capture;
        f.server.setCaptureSink(&capture);
        f.server.waitForEngine();
        Client uploader;
        QCOMPARE(uploader.ask(request(2, "cfg.txt", "netascii"), f.port), packet(4, 0));
        uploader.send(packet(3, 1, "hostname r1\r\nend\r"), uploader.peer); // a lone final CR is kept
        QCOMPARE(uploader.next(), packet(4, 1));
        QTRY_COMPARE(capture.seen, QStringList({ f.path("cfg.txt"), "hostname r1\nend", "\r" }));
        QVERIFY(!QFile::exists(f.path("cfg.txt")));
        QCOMPARE(QDir(f.folder).entryList(QDir::Hidden | QDir::Files), QStringList { "f.bin" });
    }
};

QTEST_MAIN(TestTftpStandard)
#include "tst_tftp_standard.moc"
