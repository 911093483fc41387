// Console flood benchmark. A device process sends configuration-like text
// (lines of 40 to 80 characters ending in CR LF) over TCP as fast as it can;
// the console shows it in ConsoleBox. Measured: time until the last line is
// shown, MB/s (10^6 bytes) and lines per second, the program's peak memory,
// and the same bytes through the received-text processor alone, with the
// ratio console / processor.
//
// Then the terminal-mode line: 10 MB of ANSI-heavy output (a colour on every
// word) into a console with "Terminal Emulation" on, shown in its terminal
// view: time until the last line is on screen, MB/s, the longest stall of the
// event loop meanwhile, the memory with the scrollback full, the terminal
// model alone, and tmux reading the same bytes through cat as the peer.
//
//   bench_console [--bytes N] [--runs R] [--terminal]
//                                            the benchmark (prints results;
//                                            --terminal: the terminal line only)
//   bench_console --device FILE              the device (prints its port)

#include "console/console_session.h"
#include "console/console_terminal.h"
#include "console/console_window.h"
#include "console/terminal_processor.h"
#include "console/terminal_screen.h"
#include "console/terminal_view.h"
#include "console/terminal_widget.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTextDocument>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <ctime>
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

QByteArray ansiText(qint64 bytes, int *lines)
{
    static const char *const words[] = { "interface", "GigabitEthernet0/1", "is", "up,", "line", "protocol",
        "drops", "Vlan100", "vlan", "trunk", "0", "packets", "input", "CRC", "errors" };
    QRandomGenerator random(2026);
    QByteArray text;
    text.reserve(bytes + 200);
    *lines = 0;
    while (text.size() < bytes) {
        const int count = 6 + int(random.bounded(6));
        for (int w = 0; w < count; ++w) {
            const int colour = int(random.bounded(256));
            text += "\x1b[38;5;" + QByteArray::number(colour) + (w % 3 == 0 ? ";1m" : "m")
                + words[random.bounded(15)] + "\x1b[0m ";
        }
        text += "\r\n";
        ++*lines;
    }
    text += "END-OF-FLOOD";
    return text;
}

// CPU seconds: on a shared machine the wall clock also counts the time other
// programs had the processor; CPU time is the cost of the work itself.
double cpuSeconds(clockid_t clock)
{
    timespec now {};
    clock_gettime(clock, &now);
    return double(now.tv_sec) + now.tv_nsec / 1e9;
}

long residentKilobytes(const char *field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(field))
            return line.mid(int(qstrlen(field))).trimmed().split(' ').value(0).toLong();
    }
    return 0;
}

struct TerminalResult
{
    double seconds = -1;
    double cpu = 0; // the whole program's CPU seconds meanwhile
    double longestStall = 0; // wall clock between two ticks of the event loop
    double longestStallCpu = 0; // CPU the event loop spent between two ticks
    long residentKb = 0;
};

// One flood into a fresh terminal-mode console; the clock stops when the
// last line is painted, and a 1 ms timer notes the longest gap meanwhile.
TerminalResult terminalRun(const QString &file)
{
    TerminalResult result;
    QProcess device;
    device.start(QCoreApplication::applicationFilePath(), { QStringLiteral("--device"), file });
    if (!device.waitForReadyRead(10000))
        return result;
    ConsoleSession::setTelnetPort(quint16(device.readLine().trimmed().toUInt()));

    ConsoleWindow window;
    window.resize(1000, 700);
    window.show();
    window.session()->setTerminalEmulation(true);
    QApplication::processEvents();
    const TerminalScreen &screen = window.session()->terminal()->screen();
    QElapsedTimer clock;
    QElapsedTimer sinceTick;
    double tickCpu = 0;
    QTimer ticker;
    ticker.setInterval(1);
    QObject::connect(&ticker, &QTimer::timeout, &window, [&] {
        const double cpu = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
        result.longestStall = qMax(result.longestStall, sinceTick.nsecsElapsed() / 1e6);
        result.longestStallCpu = qMax(result.longestStallCpu, (cpu - tickCpu) * 1e3);
        sinceTick.restart();
        tickCpu = cpu;
    });
    const double cpuStart = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
    QObject::connect(window.session()->terminal(), &ConsoleTerminal::screenChanged, &window, [&] {
        if (result.seconds < 0 && screen.rowText(screen.cursorRow()) == QLatin1String("END-OF-FLOOD")) {
            window.terminalBox()->viewport()->repaint();
            result.seconds = clock.nsecsElapsed() / 1e9;
            result.cpu = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - cpuStart;
        }
    });
    clock.start();
    sinceTick.start();
    tickCpu = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
    ticker.start();
    window.session()->ConnectTCP(QStringLiteral("127.0.0.1"));
    while (result.seconds < 0 && clock.elapsed() < 120000)
        QApplication::processEvents(QEventLoop::AllEvents, 50);
    ticker.stop();
    QApplication::processEvents();
    result.residentKb = residentKilobytes("VmRSS:");
    window.session()->disconnectSession();
    device.waitForFinished(10000);
    return result;
}

struct ModelResult
{
    double seconds = 0;
    double cpu = 0;
};

// What a console does with each block when no text log is kept: the screen
// and what is read from it (caption, "*" lines).
ModelResult modelRun(const QByteArray &text)
{
    ConsoleTerminal terminal;
    terminal.resize(40, 120);
    ModelResult result;
    QElapsedTimer clock;
    clock.start();
    const double start = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
    constexpr int block = 32768; // what the console reads at a time
    for (qsizetype at = 0; at < text.size(); at += block)
        terminal.feed(text.mid(at, block), false);
    result.seconds = clock.nsecsElapsed() / 1e9;
    result.cpu = cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - start;
    return result;
}

// tmux reading the same bytes from cat on its pty, until a title set at the
// end of the stream shows that it has read them all.
double tmuxRun(const QString &file, const QString &folder)
{
    QFile marker(folder + QStringLiteral("/marker"));
    if (!marker.open(QIODevice::WriteOnly))
        return -1;
    marker.write("\x1b]2;bench-done\x1b\\");
    marker.close();
    const QStringList base { "-L", "twbench", "-f", "/dev/null" };
    QProcess::execute(QStringLiteral("tmux"), base + QStringList { "kill-server" });
    QElapsedTimer clock;
    clock.start();
    if (QProcess::execute(QStringLiteral("tmux"),
            base
                + QStringList { "new", "-d", "-x", "120", "-y", "40",
                    QStringLiteral("stty -opost; cat '%1' '%2'; exec sleep 100000")
                        .arg(file, marker.fileName()) })
        != 0)
        return -1;
    double seconds = -1;
    while (clock.elapsed() < 120000) {
        QProcess title;
        title.start(QStringLiteral("tmux"), base + QStringList { "display", "-p", "#{pane_title}" });
        title.waitForFinished(10000);
        if (title.readAllStandardOutput().trimmed() == "bench-done") {
            seconds = clock.nsecsElapsed() / 1e9;
            break;
        }
    }
    QProcess::execute(QStringLiteral("tmux"), base + QStringList { "kill-server" });
    return seconds;
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
void measureTerminal(qint64 bytes, int runs, const QString &folder)
{
    int lines = 0;
    QByteArray text = ansiText(bytes, &lines);
    const QString file = folder + QStringLiteral("/ansi-%1.txt").arg(bytes);
    {
        QFile out(file);
        if (!out.open(QIODevice::WriteOnly) || out.write(text) != text.size())
            return;
    }
    const qint64 size = text.size();
    QList<double> shown;
    QList<double> shownCpu;
    QList<double> stalls;
    QList<double> stallsCpu;
    long resident = 0;
    QList<double> alone;
    QList<double> aloneCpu;
    QList<double> peer;
    // Interleaved, so that load from other programs falls on all of them alike.
    for (int i = 0; i < runs; ++i) {
        const TerminalResult result = terminalRun(file);
        shown << result.seconds;
        shownCpu << result.cpu;
        stalls << result.longestStall;
        stallsCpu << result.longestStallCpu;
        resident = qMax(resident, result.residentKb);
        const ModelResult model = modelRun(text);
        alone << model.seconds;
        aloneCpu << model.cpu;
        peer << tmuxRun(file, folder);
    }
    const double s = median(shown);
    const double sc = median(shownCpu);
    const double m = median(alone);
    const double mc = median(aloneCpu);
    const double t = median(peer);
    std::printf("terminal-mode flood of %lld bytes of ANSI-heavy output, %d lines (median of %d runs)\n",
        static_cast<long long>(size), lines, runs);
    std::printf("  terminal view shows the last line after %.3f s: %.1f MB/s; CPU %.3f s: %.1f MB/s of CPU\n",
        s, size / s / 1e6, sc, size / sc / 1e6);
    std::printf(
        "  longest event-loop stall meanwhile: %.1f ms wall (median; worst %.1f ms), of which CPU %.1f ms "
        "(median; worst %.1f ms)\n",
        median(stalls), *std::max_element(stalls.begin(), stalls.end()), median(stallsCpu),
        *std::max_element(stallsCpu.begin(), stallsCpu.end()));
    std::printf("  resident memory with the scrollback full (%d lines): %.1f MB\n",
        TerminalScreen::defaultScrollback, resident / 1024.0);
    std::printf(
        "  terminal model alone (libvterm, screen, caption and log lines): %.3f s: %.1f MB/s; CPU %.3f s: "
        "%.1f MB/s\n",
        m, size / m / 1e6, mc, size / mc / 1e6);
    if (t > 0)
        std::printf("  tmux, same bytes through cat: %.3f s: %.1f MB/s; ratio console / tmux: %.2f\n", t,
            size / t / 1e6, s / t);
    else
        std::printf("  tmux did not run (install tmux for the peer line)\n");
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
    // First, so that its memory figure is not the classic flood's.
    measureTerminal(bytes, runs, folder.path());
    if (args.contains(QLatin1String("--terminal")))
        return 0; // only the terminal-mode line (for profiling)
    measure(1000000, runs, folder.path()); // a large running configuration
    measure(bytes, runs, folder.path());
    return 0;
}
