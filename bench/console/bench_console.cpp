// Console flood benchmark. A device process sends configuration-like text
// (lines of 40 to 80 characters ending in CR LF) over TCP as fast as it can;
// the console shows it in ConsoleBox. Measured: time until the last line is
// shown, MB/s (10^6 bytes) and lines per second, the program's peak memory,
// and the same bytes through the received-text processor alone, with the
// ratio console / processor.
//
//   bench_console [--bytes N] [--runs R]     the benchmark (prints results)
//   bench_console --device FILE              the device (prints its port)

#include "console/console_session.h"
#include "console/console_window.h"
#include "console/terminal_processor.h"
#include "console/terminal_view.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTextDocument>

#include <algorithm>
#include <cstdio>
#include <sys/resource.h>

namespace {
QByteArray configText(qint64 bytes, int *lines)
{
    static const char *const stems[] = { " ip address 10.%1.%2.1 255.255.255.0",
        "interface GigabitEthernet0/%1.%2", " description uplink to distribution switch %1 port %2",
        " switchport trunk allowed vlan %1,%2,100-199",
        "access-list 110 permit tcp any host 192.168.%1.%2 eq 22", " ntp server 172.16.%1.%2 prefer" };
    QRandomGenerator random(1993);
    QByteArray text;
    text.reserve(bytes + 100);
    *lines = 0;
    while (text.size() < bytes) {
        QByteArray line = QString::fromLatin1(stems[random.bounded(6)])
                              .arg(random.bounded(256))
                              .arg(random.bounded(256))
                              .toLatin1();
        const int length = 40 + int(random.bounded(41));
        while (line.size() < length)
            line += " !" + QByteArray::number(random.bounded(10));
        line.truncate(length);
        text += line + "\r\n";
        ++*lines;
    }
    return text;
}

int runDevice(const QString &file)
{
    QFile in(file);
    if (!in.open(QIODevice::ReadOnly))
        return 1;
    const QByteArray text = in.readAll();
    QTcpServer server;
    if (!server.listen(QHostAddress::LocalHost, 0))
        return 1;
    std::printf("%d\n", server.serverPort());
    std::fflush(stdout);
    if (!server.waitForNewConnection(30000))
        return 1;
    QTcpSocket *socket = server.nextPendingConnection();
    socket->write(text);
    while (socket->bytesToWrite() > 0 && socket->waitForBytesWritten(30000)) { }
    socket->waitForReadyRead(2000); // let the console read the tail before the line drops
    return 0;
}

double median(QList<double> values)
{
    std::sort(values.begin(), values.end());
    return values.isEmpty() ? 0 : values.at(values.size() / 2);
}

long peakKilobytes()
{
    rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

// One flood through a fresh console window; seconds until the last line shows.
double consoleRun(const QString &file, qint64 bytes, int lines)
{
    const qint64 shownChars = bytes - lines + 1;
    QProcess device;
    device.start(QCoreApplication::applicationFilePath(), { QStringLiteral("--device"), file });
    if (!device.waitForReadyRead(10000))
        return -1;
    const quint16 port = quint16(device.readLine().trimmed().toUInt());
    ConsoleSession::setTelnetPort(port);

    ConsoleWindow window;
    window.resize(1000, 700);
    window.show();
    QApplication::processEvents();
    QTextDocument *document = window.consoleBox()->document();
    QElapsedTimer clock;
    double seconds = -1;
    QObject::connect(window.session(), &ConsoleSession::terminalAppend, &window, [&] {
        // The view's own slot ran first. Each CR LF is one character there,
        // and the document counts one more for its end.
        if (seconds < 0 && document->characterCount() >= shownChars) {
            // Shown means painted: the last line is on screen before the clock stops.
            window.consoleBox()->viewport()->repaint();
            seconds = clock.nsecsElapsed() / 1e9;
        }
    });
    clock.start();
    window.session()->ConnectTCP(QStringLiteral("127.0.0.1"));
    while (seconds < 0 && clock.elapsed() < 120000)
        QApplication::processEvents(QEventLoop::AllEvents, 50);
    QApplication::processEvents(); // the last paint
    window.session()->disconnectSession();
    device.waitForFinished(10000);
    return seconds;
}

double processorRun(const QByteArray &text)
{
    TerminalProcessor processor;
    QElapsedTimer clock;
    clock.start();
    qsizetype total = 0;
    constexpr int block = 65536;
    for (qsizetype at = 0; at < text.size(); at += block) {
        const QList<TerminalOp> ops = processor.feed(text.mid(at, block));
        for (const TerminalOp &op : ops)
            total += op.text.size();
    }
    const double seconds = clock.nsecsElapsed() / 1e9;
    if (total < text.size())
        std::fprintf(stderr, "processor lost text\n");
    return seconds;
}

void measure(qint64 bytes, int runs, const QString &folder)
{
    int lines = 0;
    QByteArray text = configText(bytes, &lines);
    const QString file = folder + QStringLiteral("/flood-%1.txt").arg(bytes);
    {
        QFile out(file);
        if (!out.open(QIODevice::WriteOnly) || out.write(text) != text.size()) {
            std::fprintf(stderr, "cannot write %s\n", qPrintable(file));
            return;
        }
    }
    const qint64 size = text.size();
    text = QByteArray(); // the console run must not count the generator's copy

    QList<double> shown;
    for (int i = 0; i < runs; ++i)
        shown << consoleRun(file, size, lines);
    const long peak = peakKilobytes();

    QFile in(file);
    in.open(QIODevice::ReadOnly);
    text = in.readAll();
    QList<double> alone;
    for (int i = 0; i < runs; ++i)
        alone << processorRun(text);

    const double s = median(shown);
    const double p = median(alone);
    std::printf("console flood of %lld bytes, %d lines (median of %d runs)\n", static_cast<long long>(size),
        lines, runs);
    std::printf("  ConsoleBox shows the last line after %.3f s: %.1f MB/s, %.0f lines/s\n", s, size / s / 1e6,
        lines / s);
    std::printf("  received-text processor alone:       %.3f s: %.1f MB/s, %.0f lines/s\n", p, size / p / 1e6,
        lines / p);
    std::printf("  ratio console / processor: %.2f\n", s / p);
    std::printf("  peak memory of the program so far: %.1f MB\n", peak / 1024.0);
    std::fflush(stdout);
}
} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    const QStringList args = app.arguments();
    const int device = int(args.indexOf(QStringLiteral("--device")));
    if (device > 0 && device + 1 < args.size())
        return runDevice(args.at(device + 1));

    qint64 bytes = 10000000;
    int runs = 3;
    for (int i = 1; i + 1 < args.size(); ++i) {
        if (args.at(i) == QLatin1String("--bytes"))
            bytes = args.at(i + 1).toLongLong();
        else if (args.at(i) == QLatin1String("--runs"))
            runs = qMax(1, args.at(i + 1).toInt());
    }
    QTemporaryDir folder;
    measure(1000000, runs, folder.path()); // a large running configuration
    measure(bytes, runs, folder.path());
    return 0;
}
