// The log receiver as the program runs it (one console's log view routed to
// the sender, "Log To File" on), without the rest of the program. Prints
// "ready PORT", then the counters once no datagram has arrived for IDLE ms.
//
//     bench_logrecv_driver PORT DIR [TAG] [IDLE_MS]

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
    receiver.setRouter([&routes](const QString &s, const QString &t) { return routes.deliver(s, t); });
    if (!receiver.bind(quint16(args.at(1).toUInt()))) {
        std::fprintf(stderr, "cannot bind: %s\n", qPrintable(receiver.errorString()));
        return 1;
    }

    QTimer idle;
    idle.setSingleShot(true);
    idle.setInterval(idleMs);
    QObject::connect(&idle, &QTimer::timeout, &app, &QCoreApplication::quit);
    QObject::connect(&receiver, &LogReceiver::datagramHandled, &idle, qOverload<>(&QTimer::start));
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
