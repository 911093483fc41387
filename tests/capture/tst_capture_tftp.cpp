#include "access/access_list.h"
#include "access/mask_display.h"
#include "capture/config_window.h"
#include "capture/rich_text_document.h"
#include "tftp/tftp_server.h"
#include "tftp/transfer_monitor.h"

#include <QDir>
#include <QNetworkDatagram>
#include <QProcess>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QTextEdit>
#include <QUdpSocket>

#include <memory>

namespace {
constexpr quint32 red = 0xFF0000;
constexpr quint32 blue = 0x0000FF;

QByteArray configuration(const char *host, int lines)
{
    QByteArray text = "!\nversion 15.2\nhostname " + QByteArray(host) + "\n";
    for (int i = 0; i < lines; ++i)
        text += "interface GigabitEthernet0/" + QByteArray::number(i) + "\n description port "
            + QByteArray::number(i) + " {uplink} \\ caf\xe9\n";
    return text + "end\n";
}

QByteArray block(int opcode, int number, const QByteArray &payload = {})
{
    QByteArray out;
    out.append(char(0)).append(char(opcode)).append(char(number >> 8)).append(char(number & 0xff));
    return out + payload;
}
} // namespace

// Uploads from real TFTP clients into the running server while capture is
// on: the configuration appears in the capture window, not on disk.
class TestCaptureTftp : public QObject
{
    Q_OBJECT
private:
    QTemporaryDir m_dir;
    QString m_folder;
    TransferMonitor m_monitor;
    AccessList m_acl;
    std::unique_ptr<TftpServer> m_server;
    std::unique_ptr<ConfigWindow> m_window;
    quint16 m_port = 0;

    // tftp-hpa's or atftp's put, run while the event loop keeps serving.
    void put(const QString &program, const QString &local, const QString &remote)
    {
        const QString path = QStandardPaths::findExecutable(program);
        QVERIFY2(!path.isEmpty(),
            qPrintable(program + " is missing: install the Debian package "
                + (program == "atftp" ? "atftp" : "tftp-hpa")));
        const QStringList args = program == QLatin1String("atftp")
            ? QStringList { "-p", "-r", remote, "-l", local, "127.0.0.1", QString::number(m_port) }
            : QStringList { "-m", "binary", "127.0.0.1", QString::number(m_port), "-c", "put", local,
                  remote };
        QProcess client;
        QSignalSpy finished(&client, &QProcess::finished);
        client.setProcessChannelMode(QProcess::MergedChannels);
        client.start(path, args);
        QVERIFY2(finished.wait(30000), "client did not finish");
        QVERIFY2(client.exitCode() == 0, client.readAll().constData());
    }

    QString writeLocal(const QString &name, const QByteArray &bytes)
    {
        QFile file(m_dir.filePath(name));
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
            return {};
        return file.fileName();
    }

    RichText shown() const { return tw::richTextFromDocument(*m_window->configBox()->document()); }

private Q_SLOTS:
    void init()
    {
        QVERIFY(m_dir.isValid());
        m_folder = m_dir.filePath(QStringLiteral("share%1").arg(QTest::currentTestFunction()));
        QDir().mkpath(m_folder);
        m_acl.clear();
        m_acl.appendEntry({ "0.0.0.0", maskDisplayForm(0), "yes", "yes", m_folder, 0 });
        m_window = std::make_unique<ConfigWindow>();
        m_server = std::make_unique<TftpServer>(&m_monitor, &m_acl);
        QUdpSocket probe;
        probe.bind(QHostAddress::LocalHost, 0);
        m_port = probe.localPort();
        probe.close();
        m_server->setPort(m_port);
        m_server->setBindAddress(QHostAddress::LocalHost);
        m_server->setTraceFilePath(m_dir.filePath(QStringLiteral("bugfix.ini")));
        m_server->setIntervals(60000, 60000, 60000);
        m_server->setCaptureSink(m_window.get());
        QVERIFY2(m_server->start(), qPrintable(m_server->errorString()));
        m_window->captureConfig();
    }
    void cleanup()
    {
        m_server.reset();
        m_window.reset();
    }

    // Two uploads, one from each client: name 1, contents 1, name 2,
    // contents 2, nothing between them, nothing on disk.
    void twoUploadsInOrder()
    {
        const QByteArray first = configuration("r1", 40); // several blocks
        const QByteArray second = configuration("r2", 1); // one short block
        put(QStringLiteral("tftp"), writeLocal(QStringLiteral("a.txt"), first), QStringLiteral("r1-confg"));
        put(QStringLiteral("atftp"), writeLocal(QStringLiteral("b.txt"), second), QStringLiteral("r2-confg"));

        const RichText text = shown();
        QCOMPARE(text.runs.size(), 4);
        QCOMPARE(text.runs.at(0).colour, std::optional<quint32>(red));
        QVERIFY2(
            text.runs.at(0).text.endsWith(QStringLiteral("/r1-confg")), qPrintable(text.runs.at(0).text));
        QVERIFY(text.runs.at(0).text.startsWith(m_folder));
        QCOMPARE(text.runs.at(1), (RichRun { QString::fromLatin1(first), blue }));
        QCOMPARE(text.runs.at(2).colour, std::optional<quint32>(red));
        QVERIFY(text.runs.at(2).text.endsWith(QStringLiteral("/r2-confg")));
        QCOMPARE(text.runs.at(3), (RichRun { QString::fromLatin1(second), blue }));
        QCOMPARE(QDir(m_folder).entryList(QDir::Files), QStringList());
    }

    // Capture stopped after two blocks: the other blocks go to the file at
    // their own offsets and the view keeps only the first two.
    void stopInTheMiddle()
    {
        QByteArray data;
        for (int i = 0; i < 4 * 512 - 100; ++i)
            data += char('A' + (i / 512));
        QUdpSocket client;
        QVERIFY(client.bind(QHostAddress::LocalHost, 0));
        QByteArray request = block(2, 0).left(2) + "mid-confg" + '\0' + "octet" + '\0';
        client.writeDatagram(request, QHostAddress::LocalHost, m_port);
        quint16 transferPort = 0;
        auto expectAck = [&](int number) {
            QTRY_VERIFY_WITH_TIMEOUT(client.hasPendingDatagrams(), 5000);
            const QNetworkDatagram reply = client.receiveDatagram();
            QCOMPARE(reply.data(), block(4, number));
            transferPort = quint16(reply.senderPort());
        };
        expectAck(0);
        for (int number = 1; number <= 4; ++number) {
            if (number == 3)
                m_window->stopCapture();
            client.writeDatagram(
                block(3, number, data.mid((number - 1) * 512, 512)), QHostAddress::LocalHost, transferPort);
            expectAck(number);
        }

        const RichText text = shown();
        QCOMPARE(text.runs.size(), 2);
        QCOMPARE(text.runs.at(1).text, QString::fromLatin1(data.left(1024)));
        QFile file(m_folder + QStringLiteral("/mid-confg"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray onDisk = file.readAll();
        QCOMPARE(onDisk.size(), data.size());
        QCOMPARE(onDisk.left(1024), QByteArray(1024, '\0'));
        QCOMPARE(onDisk.mid(1024), data.mid(1024));
    }
};

QTEST_MAIN(TestCaptureTftp)
#include "tst_capture_tftp.moc"
