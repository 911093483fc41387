// The log receiver as the program runs it (one console's log view routed to
// the sender, "Log To File" on), without the rest of the program. Prints
// "ready PORT", then the counters once no datagram has arrived for IDLE ms.
//
//     bench_logrecv_driver PORT DIR [TAG] [IDLE_MS] [noview]

#include "logrecv/log_options.h"
#include "logrecv/log_receiver.h"
#include "logrecv/log_routes.h"

#include <QApplication>
#include <QPlainTextEdit>
#include <QTimer>

#include <cstdio>

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 3) {
        std::fprintf(stderr, "usage: bench_logrecv_driver PORT DIR [TAG] [IDLE_MS]\n");
        return 2;
    }
    const QString tag = args.value(3, QStringLiteral("127.0.0.1"));
    const int idleMs = args.value(4, QStringLiteral("2000")).toInt();

    LogOptions options;
    options.useLogDir(args.at(2));
    QPlainTextEdit logbox;
    logbox.setObjectName(QStringLiteral("logbox"));
    LogRoutes routes;
    routes.setConsole(3, &logbox, [tag] { return tag; });
    LogReceiver receiver(&options);
    if (args.value(5) == QLatin1String("noview")) // what the view costs, by leaving it out
        receiver.setRouter([tag](const QString &s, const QString &) { return s == tag; });
    else
        routes.attach(receiver);
    if (!receiver.bind(quint16(args.at(1).toUInt()))) {
        std::fprintf(stderr, "cannot bind: %s\n", qPrintable(receiver.errorString()));
        return 1;
    }

    // Idle is checked by polling the counter: restarting a timer for every
    // datagram would cost more than the datagram itself.
    QTimer idle;
    idle.setInterval(idleMs);
    quint64 seen = 0;
    int quietTicks = 0;
    QObject::connect(&idle, &QTimer::timeout, &app, [&] {
        const quint64 now = receiver.counters().received;
        quietTicks = (now == seen) ? quietTicks + 1 : 0;
        seen = now;
        if (now > 0 && quietTicks > 0)
            app.quit();
    });
    idle.start();
    QTimer::singleShot(120000, &app, &QCoreApplication::quit); // give up if nothing ever arrives

    std::printf("ready %u rcvbuf %d\n", receiver.localPort(), receiver.receiveBufferSize());
    std::fflush(stdout);
    app.exec();
    const auto &c = receiver.counters();
    std::printf("received %llu delivered %llu written %llu failures %llu shown %d\n",
        static_cast<unsigned long long>(c.received), static_cast<unsigned long long>(c.delivered),
        static_cast<unsigned long long>(c.written), static_cast<unsigned long long>(c.writeFailures),
        logbox.document()->blockCount() - 1);
    return 0;
}
