#include "curl_client.h"
#include "test_support.h"

#include "access/access_list.h"
#include "http/http_server.h"
#include "tftp/transfer_monitor.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QUrl>

#include <csignal>
#include <sys/resource.h>

using TM = TransferMonitor;

// The HTTP server with real clients on loopback: curl and wget as devices and
// engineers use them, nginx serving the same folder as the oracle for what an
// answer should be, headless Chromium reading the folder index, and raw
// sockets for the clients that misbehave. Addresses: 127.0.0.1 may read and
// write, 127.0.0.3 only read, 127.0.0.4 only write, 127.0.0.2 is in no row.
class HttpServerTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_temp;
    QString m_folder;
    TransferMonitor m_monitor;
    AccessList m_acl;
    std::unique_ptr<HttpServer> m_server;
    QByteArray m_image; // served as ios.bin

    QString url(const QString &path) const
    {
        return QStringLiteral("http://127.0.0.1:%1%2").arg(m_server->port()).arg(path);
    }
    void startServer(int idleMs = 30000, int total = 512, int perAddress = 64)
    {
        m_server = std::make_unique<HttpServer>(&m_monitor, &m_acl);
        m_server->setBindAddress(QHostAddress::LocalHost);
        m_server->setIdleTimeout(idleMs);
        m_server->setConnectionLimits(total, perAddress);
        QVERIFY2(m_server->start(0), qPrintable(m_server->errorString()));
    }
    // The newest monitor row named `name` once its status reads `status`.
    bool rowReaches(const QString &name, const QString &status)
    {
        for (int row = m_monitor.transferCount(); row >= 1; --row) {
            if (m_monitor.transferText(row, TM::Filename) == name)
                return m_monitor.transferText(row, TM::Status) == status;
        }
        return false;
    }
    QByteArray fileBytes(const QString &name) const { return tw::test::readFile(m_folder + '/' + name); }
    QStringList leftovers() const
    {
        return QDir(m_folder).entryList({ QStringLiteral(".*.??????") }, QDir::Files | QDir::Hidden);
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_folder = m_temp.filePath(QStringLiteral("images"));
        QVERIFY(QDir().mkpath(m_folder + QStringLiteral("/sub")));
        QRandomGenerator rng(22);
        m_image.resize(3 * 1000 * 1000 + 17);
        rng.fillRange(reinterpret_cast<quint32 *>(m_image.data()), m_image.size() / 4);
        QVERIFY(tw::test::writeFile(m_folder + QStringLiteral("/ios.bin"), m_image));
        QVERIFY(tw::test::writeFile(m_temp.filePath(QStringLiteral("secret.txt")), "outside\n"));
        QVERIFY(tw::test::writeFile(m_temp.filePath(QStringLiteral("small.txt")), "small\n"));
        QVERIFY(QFile::link(
            m_temp.filePath(QStringLiteral("secret.txt")), m_folder + QStringLiteral("/out.txt")));
        QVERIFY(QFile::link(m_folder + QStringLiteral("/ios.bin"), m_folder + QStringLiteral("/in.bin")));
        m_acl.appendEntry({ "127.0.0.1", "255.255.255.255", "yes", "yes", m_folder, 32 });
        m_acl.appendEntry({ "127.0.0.3", "255.255.255.255", "yes", "no", m_folder, 32 });
        m_acl.appendEntry({ "127.0.0.4", "255.255.255.255", "no", "yes", m_folder, 32 });
        startServer();
    }

    // Answers to GET and HEAD, validators, conditional and range requests
    // are compared header by header and byte by byte with nginx on the same folder.
    void answersMatchNginx()
    {
        QTemporaryDir nginxDir;
        const quint16 nginxPort = tw::test::freeTcpPort();
        const QString conf = nginxDir.filePath(QStringLiteral("nginx.conf"));
        QVERIFY(tw::test::writeFile(conf,
            QStringLiteral(
                "daemon off; master_process off; pid %1/nginx.pid; error_log %1/error.log;\n"
                "events {}\nhttp { access_log off; types {} default_type application/octet-stream;\n"
                "client_body_temp_path %1/body; proxy_temp_path %1/proxy; fastcgi_temp_path %1/fcgi;\n"
                "uwsgi_temp_path %1/uwsgi; scgi_temp_path %1/scgi;\n"
                "server { listen 127.0.0.1:%2; root %3; } }\n")
                .arg(nginxDir.path())
                .arg(nginxPort)
                .arg(m_folder)
                .toUtf8()));
        QProcess nginx;
        nginx.start(QStringLiteral("nginx"), { "-p", nginxDir.path(), "-c", conf, "-e", "stderr" });
        QVERIFY2(
            nginx.waitForStarted(), "nginx is missing (Debian package nginx-light; scripts/bootstrap test)");
        const QString peer = QStringLiteral("http://127.0.0.1:%1").arg(nginxPort);
        QTRY_VERIFY_WITH_TIMEOUT(curl({ peer + "/ios.bin", "-I" }).status == 200, 30000);

        const HttpAnswer head = curl({ url("/ios.bin"), "-I" });
        const QByteArray tag = head.header("etag"), modified = head.header("last-modified");
        const QList<QStringList> requests = {
            { "/ios.bin" },
            { "/ios.bin", "-I" },
            { "/ios.bin", "-r", "100-199" },
            { "/ios.bin", "-r", "2999990-" },
            { "/ios.bin", "-r", "-5" },
            { "/ios.bin", "-r", "5000000-" },
            { "/ios.bin", "-H", "If-None-Match: " + tag },
            { "/ios.bin", "-H", "If-None-Match: \"other\"" },
            { "/ios.bin", "-H", "If-Modified-Since: " + modified },
            { "/ios.bin", "-r", "0-9", "-H", "If-Range: " + tag },
            { "/ios.bin", "-r", "0-9", "-H", "If-Range: \"stale\"" },
            { "/missing.bin" },
            { "/sub/missing.bin" },
        };
        for (const QStringList &request : requests) {
            const HttpAnswer ours = curl(QStringList { url(request[0]) } + request.mid(1));
            const HttpAnswer theirs = curl(QStringList { peer + request[0] } + request.mid(1));
            const QByteArray what = request.join(' ').toUtf8();
            QVERIFY2(ours.status == theirs.status,
                what + ": " + QByteArray::number(ours.status) + " vs nginx "
                    + QByteArray::number(theirs.status));
            if (ours.status >= 400)
                continue; // error pages differ in wording only
            // A 304 may leave the length out (nginx) or give the full file's (we do).
            const bool lengthOptional = ours.status == 304 && theirs.header("content-length").isEmpty()
                && ours.header("content-length") == QByteArray::number(m_image.size());
            for (const char *name : { "content-length", "content-range", "etag", "last-modified" })
                if (!(lengthOptional && QByteArray(name) == "content-length"))
                    QVERIFY2(ours.header(name) == theirs.header(name),
                        what + ": " + name + " " + ours.header(name) + " vs nginx " + theirs.header(name));
            QVERIFY2(ours.body == theirs.body, what + ": bodies differ");
        }
        nginx.terminate();
        nginx.waitForFinished();
        QTRY_VERIFY_WITH_TIMEOUT(rowReaches("http: missing.bin", "No Such File"), 10000);
        QTRY_VERIFY_WITH_TIMEOUT(rowReaches("http: ios.bin", "FINISHED OK"), 10000);
    }

    // Who may do what, and names that try to leave the folder, with the
    // monitor rows that record them.
    void accessListAndConfinement()
    {
        // The request, the status, and the row with its status (404s and their rows: answersMatchNginx).
        const QList<std::tuple<QStringList, int, QString, QString>> cases = {
            { { url("/ios.bin"), "--interface", "127.0.0.2" }, 403, "http: ios.bin", "Blocked" },
            { { url("/new.bin"), "--interface", "127.0.0.3", "-T", m_temp.filePath("small.txt") }, 403,
                "http: new.bin", "Blocked" },
            { { url("/"), "--interface", "127.0.0.4" }, 403, "http: /", "Blocked" },
            { { url("/../secret.txt") }, 403, "http: ../secret.txt", "Blocked" },
            { { url("/%2e%2e/secret.txt") }, 403, "http: ../secret.txt", "Blocked" },
            { { url("/out.txt") }, 403, "http: out.txt", "Blocked" },
            { { url("//etc/passwd") }, 403, "http: /etc/passwd", "Blocked" },
            { { url("/in.bin"), "--interface", "127.0.0.3" }, 200, "http: in.bin", "FINISHED OK" },
            { { url("/%zz") }, 400, {}, {} },
        };
        for (const auto &[request, status, row, rowStatus] : cases) {
            const HttpAnswer answer = curl(request);
            QVERIFY2(answer.status == status,
                qPrintable(request.join(' ') + " -> " + QString::number(answer.status)));
            if (!row.isEmpty())
                QTRY_VERIFY2_WITH_TIMEOUT(rowReaches(row, rowStatus), qPrintable(row), 10000);
        }
        QVERIFY(!QFile::exists(m_folder + "/new.bin"));
        // Rows read as TFTP's do: allowed reads from the server to the client, refusals the other way.
        const int last = m_monitor.transferCount();
        QCOMPARE(m_monitor.transferText(last, TM::From), QString("127.0.0.1"));
        QCOMPARE(m_monitor.transferText(last, TM::To), QString("127.0.0.3"));
    }

    // A download cut off half-way resumes where it stopped, with curl and wget.
    void resumeAfterCutOff()
    {
        const QString half = m_temp.filePath("curl.bin"), wgetHalf = m_temp.filePath("wget.bin");
        const QByteArray digest = QCryptographicHash::hash(m_image, QCryptographicHash::Sha256);
        QCOMPARE(runTool("curl", { "-s", "-r", "0-1499999", "-o", half, url("/ios.bin") }), 0);
        QCOMPARE(QFileInfo(half).size(), 1500000);
        QCOMPARE(runTool("curl", { "-s", "-C", "-", "-o", half, url("/ios.bin") }), 0);
        QVERIFY(tw::test::writeFile(wgetHalf, m_image.left(1234567)));
        QCOMPARE(runTool("wget", { "-q", "-c", "-O", wgetHalf, url("/ios.bin") }), 0);
        for (const QString &path : { half, wgetHalf })
            QCOMPARE(QCryptographicHash::hash(tw::test::readFile(path), QCryptographicHash::Sha256), digest);
    }

    // Uploads land whole or not at all: new and replaced files, one cut off
    // half-way and one that meets a full disk (a file-size limit here).
    void uploads()
    {
        const QString source = m_temp.filePath("upload.bin");
        QVERIFY(tw::test::writeFile(source, m_image.left(2000000)));
        QCOMPARE(curl({ url("/f.bin"), "-T", source }).status, 201);
        QCOMPARE(fileBytes("f.bin"), m_image.left(2000000));
        QVERIFY(tw::test::writeFile(source, m_image.right(1000000)));
        QCOMPARE(curl({ url("/f.bin"), "-T", source }).status, 204);
        QCOMPARE(fileBytes("f.bin"), m_image.right(1000000));
        QTRY_VERIFY_WITH_TIMEOUT(rowReaches("http: f.bin", "FINISHED OK"), 10000);

        // Cut off: the row shows bytes arriving, then the client goes.
        QTcpSocket cut;
        cut.connectToHost(QHostAddress::LocalHost, m_server->port());
        QVERIFY(cut.waitForConnected(10000));
        cut.write("PUT /f.bin HTTP/1.1\r\nHost: x\r\nContent-Length: 2000000\r\n\r\n" + m_image.left(900000));
        QTRY_VERIFY_WITH_TIMEOUT(rowReaches("http: f.bin", "Allowed")
                && m_monitor.transferText(m_monitor.transferCount(), TM::DataSentReceived)
                       .contains("of 2000000"),
            30000);
        cut.abort();
        QTRY_VERIFY_WITH_TIMEOUT(rowReaches("http: f.bin", "ABORTED"), 30000);
        QCOMPARE(fileBytes("f.bin"), m_image.right(1000000));
        QCOMPARE(leftovers(), QStringList());

        // Disk full: 507, the old file kept, no temporary file left.
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit old {}, small {};
        ::getrlimit(RLIMIT_FSIZE, &old);
        small = old;
        small.rlim_cur = 64 * 1024;
        QVERIFY(tw::test::writeFile(source, m_image.left(500000)));
        ::setrlimit(RLIMIT_FSIZE, &small);
        const HttpAnswer full = curl({ url("/f.bin"), "-T", source });
        ::setrlimit(RLIMIT_FSIZE, &old);
        QCOMPARE(full.status, 507);
        QTRY_VERIFY_WITH_TIMEOUT(rowReaches("http: f.bin", "DISK FULL"), 10000);
        QCOMPARE(fileBytes("f.bin"), m_image.right(1000000));
        QCOMPARE(leftovers(), QStringList());
    }

    // Past 4 GiB on a sparse file: the length and a range beyond 32 bits.
    void largeSparseFile()
    {
        const qint64 size = qint64(5) << 30, mark = (qint64(4) << 30) + 100;
        QFile file(m_folder + "/huge.img");
        QVERIFY(file.open(QIODevice::WriteOnly) && file.resize(size) && file.seek(mark));
        file.write("MARK");
        file.close();
        QCOMPARE(curl({ url("/huge.img"), "-I" }).header("content-length"), QByteArray::number(size));
        const HttpAnswer part = curl({ url("/huge.img"), "-r", QString("%1-%2").arg(mark).arg(mark + 3) });
        QCOMPARE(part.status, 206);
        QCOMPARE(part.body, QByteArray("MARK"));
        QCOMPARE(part.header("content-range"),
            QString("bytes %1-%2/%3").arg(mark).arg(mark + 3).arg(size).toUtf8());
        QFile::remove(m_folder + "/huge.img");
    }

    // The folder index as a browser reads it: names with "<", "&" and blanks
    // show as text and link to themselves.
    void folderIndexInBrowser()
    {
        const QStringList names = { "a<b>.bin", "x & y.txt", "with space.cfg" };
        for (const QString &name : names)
            QVERIFY(tw::test::writeFile(m_folder + "/sub/" + name, name.toUtf8()));
        QByteArray dom;
        const int status = runTool("chromium",
            { "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                "--user-data-dir=" + m_temp.filePath("chromium"), "--dump-dom", url("/sub") },
            &dom);
        QVERIFY2(
            status == 0, "chromium is missing or failed (Debian package chromium; scripts/bootstrap test)");
        for (const QString &name : names) {
            const QByteArray escaped = name.toHtmlEscaped().toUtf8();
            const QByteArray href = "./" + QUrl::toPercentEncoding(name);
            QVERIFY2(dom.contains("<a href=\"" + href + "\">" + escaped + "</a>"), dom.constData());
            QCOMPARE(curl({ url("/sub/" + href.mid(2)) }).body, name.toUtf8());
        }
        QCOMPARE(dom.count("<a "), names.size());
    }

    // Bad clients: one that drips a byte at a time is cut off while a normal
    // download beside it finishes; connections past either limit get 503;
    // malformed requests get 400 or an error of their kind, and no row.
    void badClients()
    {
        startServer(1000, 512, 2);
        QTcpSocket slow;
        slow.connectToHost(QHostAddress::LocalHost, m_server->port());
        QVERIFY(slow.waitForConnected(10000));
        const QByteArray request
            = "GET /ios.bin HTTP/1.1\r\nHost: x\r\nX-Pad: " + QByteArray(4000, 'a') + "\r\n\r\n";
        qsizetype sent = 0;
        QTimer drip;
        connect(&drip, &QTimer::timeout, &slow, [&] {
            if (slow.state() == QAbstractSocket::ConnectedState && sent < request.size())
                slow.write(request.mid(sent++, 1));
        });
        drip.start(100);
        QByteArray fast;
        QCOMPARE(runTool("curl", { "-s", url("/ios.bin") }, &fast), 0);
        QCOMPARE(fast.size(), m_image.size());
        QTRY_VERIFY_WITH_TIMEOUT(slow.state() == QAbstractSocket::UnconnectedState, 60000);
        drip.stop();
        QVERIFY(sent < request.size());

        // Two idle connections from 127.0.0.1 use up its share; 127.0.0.3 is
        // still served until idle ones from .3 and .4 fill the total of four.
        startServer(60000, 4, 2);
        const auto idleFrom = [this](const char *address) {
            auto *socket = new QTcpSocket(this);
            socket->bind(QHostAddress(QString::fromLatin1(address)));
            socket->connectToHost(QHostAddress::LocalHost, m_server->port());
            return socket;
        };
        QList<QTcpSocket *> idle = { idleFrom("127.0.0.1"), idleFrom("127.0.0.1") };
        for (QTcpSocket *socket : idle)
            QVERIFY(socket->waitForConnected(10000));
        QCOMPARE(curl({ url("/ios.bin"), "-I" }).status, 503);
        QCOMPARE(curl({ url("/ios.bin"), "-I", "--interface", "127.0.0.3" }).status, 200);
        idle << idleFrom("127.0.0.3") << idleFrom("127.0.0.4");
        for (QTcpSocket *socket : idle)
            QVERIFY(socket->waitForConnected(10000));
        QCOMPARE(curl({ url("/ios.bin"), "-I", "--interface", "127.0.0.3" }).status, 503);
        idle[0]->abort();
        idle[2]->abort();
        QTRY_COMPARE_WITH_TIMEOUT(curl({ url("/ios.bin"), "-I" }).status, 200, 30000);
        qDeleteAll(idle);

        // Malformed requests get 400, or the library's error of their kind, or
        // (a line it cannot split at all) the connection closed; none leaves a row.
        startServer(3000);
        const int rows = m_monitor.transferCount();
        const QList<std::pair<QByteArray, int>> malformed = {
            { QByteArray("GET /ios") + '\0' + ".bin HTTP/1.1\r\nHost: x\r\n\r\n", 400 },
            { QByteArray("GE") + '\0' + "T /ios.bin HTTP/1.1\r\nHost: x\r\n\r\n", 400 },
            { QByteArray("GET /ios.bin?") + '\0' + " HTTP/1.1\r\nHost: x\r\n\r\n", 400 },
            { "GET /ios\r.bin HTTP/1.1\r\nHost: x\r\n\r\n", 400 },
            { "GET ios.bin HTTP/1.1\r\nHost: x\r\n\r\n", 400 },
            { "GET /ios.bin HTTP/1.1\r\n\r\n", 400 },
            { "GET /ios.bin HTTP/1.1\r\nHost: x\r\n folded\r\n\r\n", 400 },
            { "PUT /n.bin HTTP/1.1\r\nHost: x\r\nContent-Length: -1\r\n\r\n", 400 },
            { "PUT /n.bin HTTP/1.1\r\nHost: x\r\nContent-Length: 99999999999999999999999\r\n\r\n", 413 },
            { "GET /" + QByteArray(300000, 'a') + " HTTP/1.1\r\nHost: x\r\n\r\n", 414 },
            { "GET / HTTP/1.1\r\nHost: x\r\nX: " + QByteArray(300000, 'a') + "\r\n\r\n", 431 },
            { "DELETE /ios.bin HTTP/1.1\r\nHost: x\r\n\r\n", 405 },
            { "GET / HTTP/9.9\r\nHost: x\r\n\r\n", 505 },
            { "GARBAGE\r\n\r\n", 0 },
            { "GET /ios bin HTTP/1.1\r\nHost: x\r\n\r\n", 0 },
        };
        for (const auto &[bytes, expected] : malformed) {
            QTcpSocket socket;
            socket.connectToHost(QHostAddress::LocalHost, m_server->port());
            QVERIFY(socket.waitForConnected(10000));
            socket.write(bytes);
            QByteArray reply;
            QTRY_VERIFY_WITH_TIMEOUT((reply += socket.readAll()).contains("\r\n\r\n")
                    || socket.state() == QAbstractSocket::UnconnectedState,
                30000);
            QVERIFY2(reply.split(' ').value(1).toInt() == expected,
                QByteArray(bytes.left(40)).replace('\0', "\\0") + " -> " + reply.left(40));
        }
        QVERIFY2(
            m_monitor.transferCount() == rows, qPrintable(m_monitor.transferLine(m_monitor.transferCount())));
        QRandomGenerator rng(22);
        const QByteArray valid
            = "PUT /m.bin HTTP/1.1\r\nHost: x\r\nRange: bytes=0-3\r\nContent-Length: 9\r\n\r\n123456789";
        for (int i = 0; i < 100; ++i) {
            QByteArray mutated = valid;
            mutated.insert(int(rng.bounded(valid.size())), tw::test::junk(rng, 8));
            QTcpSocket socket;
            socket.connectToHost(QHostAddress::LocalHost, m_server->port());
            QVERIFY(socket.waitForConnected(10000));
            socket.write(mutated.left(int(rng.bounded(mutated.size())) + 1));
            socket.disconnectFromHost();
            QTRY_VERIFY_WITH_TIMEOUT(socket.state() == QAbstractSocket::UnconnectedState, 30000);
        }
        // Served again at the latest once the watchdog has closed what they left open.
        QTRY_COMPARE_WITH_TIMEOUT(curl({ url("/ios.bin"), "-r", "0-3" }).body, m_image.left(4), 60000);
        QTRY_COMPARE_WITH_TIMEOUT(
            leftovers(), QStringList(), 60000); // uploads cut off take their temporary files
    }

    // HTTPS with a self-signed pair made as README shows.
    void https()
    {
        const QString cert = m_temp.filePath("cert.pem"), key = m_temp.filePath("key.pem");
        QCOMPARE(runTool("openssl",
                     { "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", cert, "-days",
                         "1", "-subj", "/CN=tarnwick" }),
            0);
        m_server = std::make_unique<HttpServer>(&m_monitor, &m_acl);
        m_server->setBindAddress(QHostAddress::LocalHost);
        QVERIFY(m_server->setTlsFiles(cert, key));
        QVERIFY2(m_server->start(0), qPrintable(m_server->errorString()));
        QByteArray body;
        QCOMPARE(runTool("curl",
                     { "-s", "-k", QString("https://127.0.0.1:%1/ios.bin").arg(m_server->port()) }, &body),
            0);
        QCOMPARE(body, m_image);
        QVERIFY(!m_server->setTlsFiles(m_temp.filePath("none.pem"), key));
    }
};

QTEST_GUILESS_MAIN(HttpServerTest)
#include "tst_http_server.moc"
