// Real peers against the running engine: tftp-hpa's `tftp` (mode binary, no
// options) and `atftp`, downloading and uploading through an ephemeral port.
// Download sizes avoid multiples of 512 above 512: those end on a full final
// block, which real clients answer by waiting (the byte-level tests cover them).

#include "tftp_test_support.h"

#include <QProcess>
#include <QSignalSpy>
#include <QStandardPaths>

using namespace tftptest;

namespace {
struct Peer
{
    const char *program;
    const char *package;
};
const Peer tftpHpa { "tftp", "tftp-hpa" };
const Peer atftp { "atftp", "atftp" };

QStringList arguments(
    const QString &program, bool download, const QString &remote, const QString &local, quint16 port)
{
    if (program == QLatin1String("atftp"))
        return { download ? "-g" : "-p", "-r", remote, "-l", local, "127.0.0.1", QString::number(port) };
    return { "-m", "binary", "127.0.0.1", QString::number(port), "-c", download ? "get" : "put",
        download ? remote : local, download ? local : remote };
}
} // namespace

class TestTftpClients : public QObject
{
    Q_OBJECT

private:
    // Runs the client while the event loop keeps serving; false on timeout.
    static bool run(QProcess &process, const QString &program, const QStringList &args, int timeoutMs = 60000)
    {
        QSignalSpy finished(&process, &QProcess::finished);
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(program, args);
        return finished.wait(timeoutMs);
    }

private Q_SLOTS:
    void initTestCase()
    {
        // A missing peer is a failure, never a skip.
        for (const Peer &peer : { tftpHpa, atftp }) {
            QVERIFY2(!QStandardPaths::findExecutable(peer.program).isEmpty(),
                qPrintable(
                    QString("%1 not found: install the Debian package %2").arg(peer.program, peer.package)));
        }
    }

    void transfer_data()
    {
        QTest::addColumn<QString>("program");
        QTest::addColumn<bool>("download");
        QTest::addColumn<qint64>("size");
        for (const char *program : { "tftp", "atftp" }) {
            for (bool download : { true, false }) {
                for (qint64 size : { 0, 511, 512, 513, 700, 1000000, 10000000 }) {
                    QTest::addRow("%s %s %lld", program, download ? "get" : "put", size)
                        << QString(program) << download << size;
                }
            }
        }
    }
    void transfer()
    {
        QFETCH(QString, program);
        QFETCH(bool, download);
        QFETCH(qint64, size);
        Fixture f;
        QVERIFY(f.server->start());
        const QByteArray content = pattern(size, int(size % 97));
        const QString local = f.dir->filePath("local.bin");
        QVERIFY(writeFile(download ? f.path("remote.bin") : local, content));

        QProcess client;
        QVERIFY2(run(client, QStandardPaths::findExecutable(program),
                     arguments(program, download, "remote.bin", local, f.port)),
            "client did not finish");
        QVERIFY2(client.exitCode() == 0, client.readAll().constData());
        QCOMPARE(readFile(download ? local : f.path("remote.bin")), content);

        // What the monitor shows at the end: the request row, the slot's row,
        // and a listener on the next slot.
        QCOMPARE(f.monitor.transferCount(), 1);
        QCOMPARE(f.monitor.transferText(1, TransferMonitor::Filename), QString("remote.bin"));
        QCOMPARE(f.monitor.transferText(1, TransferMonitor::From), QString("127.0.0.1"));
        QCOMPARE(f.monitor.transferText(1, TransferMonitor::To), QString("127.0.0.1"));
        if (download) {
            QTRY_COMPARE(f.socketStatus(1), QString("ready")); // cleaned as the last ACK arrives
            QCOMPARE(f.monitor.transferText(1, TransferMonitor::Status), QString("FINISHED OK"));
        } else {
            QCOMPARE(f.socketStatus(1), QString("Blocking")); // held after an upload
            QCOMPARE(f.monitor.transferText(1, TransferMonitor::Status), QString("Allowed"));
            QVERIFY(f.monitor.socketText(1, TransferMonitor::LocalPort) != QString::number(f.port));
        }
        QCOMPARE(f.socketStatus(2), QString("Listen"));
        QCOMPARE(f.monitor.socketText(2, TransferMonitor::LocalPort), QString::number(f.port));
    }

    void concurrentDownloads()
    {
        Fixture f;
        QVERIFY(f.server->start());
        const QByteArray content = pattern(1000000, 3);
        QVERIFY(writeFile(f.path("image.bin"), content));
        const QString program = QStandardPaths::findExecutable("tftp");
        std::vector<std::unique_ptr<QProcess>> clients;
        QSignalSpy *spies[29];
        for (int i = 0; i < 29; ++i) {
            clients.push_back(std::make_unique<QProcess>());
            spies[i] = new QSignalSpy(clients.back().get(), &QProcess::finished);
            clients.back()->start(program,
                arguments("tftp", true, "image.bin", f.dir->filePath(QString("got%1.bin").arg(i)), f.port));
        }
        for (int i = 0; i < 29; ++i) {
            QVERIFY2(spies[i]->count() > 0 || spies[i]->wait(60000), qPrintable(QString("client %1").arg(i)));
            delete spies[i];
        }
        for (int i = 0; i < 29; ++i) {
            QCOMPARE(clients[i]->exitCode(), 0);
            QCOMPARE(readFile(f.dir->filePath(QString("got%1.bin").arg(i))), content);
        }
        QCOMPARE(f.monitor.transferCount(), 29);
        for (int row = 1; row <= 29; ++row)
            QCOMPARE(f.monitor.transferText(row, TransferMonitor::Status), QString("FINISHED OK"));
        QTRY_VERIFY(f.server->listenerSlot() != 0);
        QCOMPARE(f.server->highestTransferRowInUse(), 0);
    }
};

QTEST_GUILESS_MAIN(TestTftpClients)
#include "tst_tftp_clients.moc"
