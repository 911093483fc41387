#include "app/command_line.h"
#include "http/curl_client.h"
#include "test_support.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QUdpSocket>

// The command line contract: the options parsed into their values, mistakes
// refused with status 2, and the real program in --headless mode serving TFTP
// and HTTP, reporting monitor rows, surviving a port it cannot bind and
// stopping on SIGTERM.
class CommandLineTest : public QObject
{
    Q_OBJECT

private:
    static QString program() { return QStringLiteral(TW_PROGRAM); }

private Q_SLOTS:
    // Each port lands in its own field: a swapped pair would send devices to the wrong service.
    void portsLandWhereTheyBelong()
    {
        CommandLineOptions options;
        const CommandLineResult result
            = parseCommandLine({ "tarnwick", "--tftp-port", "1069", "--log-port", "1514", "--telnet-port",
                                   "2323", "--snmp-port", "1161", "--http-port", "8080", "--tftp-standard" },
                options);
        QCOMPARE(result.action, CommandLineResult::Run);
        QCOMPARE(QList<quint16>({ options.tftpPort, options.logPort, options.telnetPort, options.snmpPort,
                     options.httpPort }),
            QList<quint16>({ 1069, 1514, 2323, 1161, 8080 }));
        QVERIFY(options.tftpStandard);
    }

    void refusesMistakes()
    {
        for (const QStringList &arguments :
            QList<QStringList> { { "tarnwick", "--bogus" }, { "tarnwick", "--tftp-port", "sixty-nine" },
                { "tarnwick", "--log-port", "70000" }, { "tarnwick", "--folder" }, { "tarnwick", "extra" },
                { "tarnwick", "--https-cert", "c.pem" } }) {
            CommandLineOptions options;
            const CommandLineResult result = parseCommandLine(arguments, options);
            QVERIFY2(result.action == CommandLineResult::ExitError && !result.output.isEmpty(),
                qPrintable(arguments.join(' ')));
        }
    }

    void programExitStatuses()
    {
        QProcess process;
        const auto run = [&](const char *option, int status) {
            process.start(program(), { QLatin1String(option) });
            return process.waitForFinished(30000) && process.exitCode() == status;
        };
        QVERIFY(run("--bogus", 2) && process.readAllStandardError().contains("bogus"));
        QVERIFY(run("--help", 0));
        const QByteArray help = process.readAllStandardOutput();
        for (const char *option : { "--headless", "--tftp-port", "--log-port", "--telnet-port", "--snmp-port",
                 "--folder", "--acl", "--connect", "--log-dir", "--confine" })
            QVERIFY2(help.contains(option), option);
    }

    // One run of the real program as a jump host runs it: the TFTP port binds and
    // is reported as the listener; the log port is taken, which is said with its
    // remedy and stops nothing; --tftp-standard serves curl's TFTP fetch and
    // --http-port its HTTP one, each row printed as it changes; SIGTERM ends the
    // run cleanly.
    void headlessRun()
    {
        QUdpSocket occupier;
        QVERIFY(occupier.bind(QHostAddress::AnyIPv4, 0));
        const quint16 busy = occupier.localPort(), tftp = tw::test::freeUdpPort(),
                      http = tw::test::freeTcpPort();
        QTemporaryDir home;
        const QString folder = home.filePath(QStringLiteral("share"));
        QVERIFY(QDir().mkpath(folder));
        QVERIFY(tw::test::writeFile(folder + QStringLiteral("/image.bin"), QByteArray(3000000, 'x')));
        QVERIFY(tw::test::writeFile(home.filePath(QStringLiteral("ACLIST.ini")),
            "127.0.0.0; 255. 0 . 0 . 0 ;yes;no;" + folder.toLocal8Bit() + ";8;\r\n"));
        QProcess process;
        tw::test::startHeadless(process, home.path(),
            { "--tftp-standard", "--tftp-port", QString::number(tftp), "--log-port", QString::number(busy),
                "--http-port", QString::number(http) });
        QVERIFY2(process.waitForStarted(), qPrintable(process.errorString()));
        QByteArray seen;
        // The listener's row is printed as "ready" first, then as "Listen".
        const QByteArray listening = "socket\t1\t1\t" + QByteArray::number(tftp) + "\t\tListen\t";
        QVERIFY2(tw::test::waitForOutput(process, listening, seen), seen.constData());
        QByteArray errors;
        QTRY_VERIFY_WITH_TIMEOUT(
            (errors += process.readAllStandardError()).contains(QByteArray::number(busy)), 30000);
        QVERIFY2(errors.contains("setcap"), errors.constData());

        // Rows reach the output in batches: the final count comes with the end state.
        const QString got = home.filePath(QStringLiteral("got.bin"));
        QVERIFY2(
            runTool("curl", { "-sS", "-o", got, QStringLiteral("tftp://127.0.0.1:%1/image.bin").arg(tftp) })
                == 0,
            "curl failed or is missing: install the curl package");
        QCOMPARE(QFileInfo(got).size(), 3000000);
        QVERIFY2(tw::test::waitForOutput(process, "\t127.0.0.1\tFINISHED OK\t3000000 bytes", seen), seen);
        const QString url = QStringLiteral("http://127.0.0.1:%1/image.bin").arg(http);
        QTRY_VERIFY_WITH_TIMEOUT(curl({ url }).status == 200, 60000);
        QVERIFY2(tw::test::waitForOutput(process, "\thttp: image.bin\t127.0.0.1\t127.0.0.1\tAllowed\t", seen),
            seen);
        QVERIFY2(tw::test::waitForOutput(
                     process, "\thttp: image.bin\t127.0.0.1\t127.0.0.1\tFINISHED OK\t3000000 bytes\n", seen),
            seen);

        QCOMPARE(process.state(), QProcess::Running);
        process.terminate(); // SIGTERM
        QVERIFY(process.waitForFinished(30000));
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(process.exitCode(), 0);
    }
};

QTEST_GUILESS_MAIN(CommandLineTest)
#include "tst_command_line.moc"
