// Syslog datagrams from arbitrary senders reaching the log receiver: each part
// of the input is one datagram, its first four bytes the sender's IPv4
// address (sixteen after a leading "6" for an IPv6 sender). Consoles carry a
// few fixed device addresses; with "Log To File" on (odd first byte) records
// go to a temporary folder, where exactly the files of the claimed senders
// must appear, named by sender and day; they are removed after each input.
#include "fuzz_input.h"

#include "logrecv/log_options.h"
#include "logrecv/log_receiver.h"

#include <QDate>
#include <QDir>
#include <QFile>
#include <QSet>
#include <QTemporaryDir>

#include <cstdlib>
#include <cstring>

namespace {
QHostAddress takeSender(QByteArray &part)
{
    if (part.startsWith('6') && part.size() >= 17) {
        Q_IPV6ADDR address;
        std::memcpy(address.c, part.constData() + 1, 16);
        part.remove(0, 17);
        return QHostAddress(address);
    }
    QByteArray bytes = part.left(4);
    bytes.resize(4, '\0');
    part.remove(0, 4);
    return QHostAddress(quint32(uchar(bytes[0])) << 24 | quint32(uchar(bytes[1])) << 16
        | quint32(uchar(bytes[2])) << 8 | quint32(uchar(bytes[3])));
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static QTemporaryDir top;
    static const QString folder = top.filePath(QStringLiteral("logs"));
    // The router stands in for the consoles: it claims the device addresses
    // their log views carry.
    static const QStringList tags { QStringLiteral("10.1.1.1"), QStringLiteral("192.168.0.254"),
        QStringLiteral("127.0.0.1"), QStringLiteral("::1") };

    LogOptions options;
    options.setFolder(folder);
    QList<LogReceiver::Datagram> batch;
    const QList<QByteArray> parts = splitInput(data, size, 300);
    for (QByteArray part : parts) {
        const QHostAddress from = takeSender(part);
        batch.append({ from, part });
    }
    // The first part's first byte switches "Log To File".
    options.setLogToFile(size > 0 && (data[0] & 1));

    LogReceiver receiver(&options);
    QSet<QString> claimed;
    receiver.setRouter([&](const QString &sender, const QString &) {
        if (!tags.contains(sender))
            return false;
        claimed.insert(sender);
        return true;
    });
    // The socket takes batches of up to 256 datagrams.
    for (qsizetype at = 0; at < batch.size(); at += 256)
        receiver.receive(batch.mid(at, 256));

    const LogReceiver::Counters &counters = receiver.counters();
    if (counters.received != quint64(batch.size())
        || counters.delivered + counters.dropped != counters.received)
        std::abort();
    if (options.logToFile() && counters.written != counters.delivered)
        std::abort();

    if (!options.logToFile()) {
        if (counters.written != 0 || counters.writeFailures != 0)
            std::abort();
        return 0;
    }
    // Nothing lands outside the log folder, and inside it only the files of
    // the senders a console claimed, named by sender and day.
    QSet<QString> expected;
    for (const QString &sender : std::as_const(claimed))
        expected.insert(LogReceiver::logFileName(sender, QDate::currentDate()));
    const QStringList outside
        = QDir(top.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    if (outside != QStringList { QStringLiteral("logs") } && !outside.isEmpty())
        std::abort();
    QDir logs(folder);
    const QStringList written = logs.entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
    if (QSet<QString>(written.begin(), written.end()) != expected)
        std::abort();
    // By full path: QDir would take a name starting with ":" ("::1 ...") for a resource.
    for (const QString &name : written)
        QFile::remove(folder + QLatin1Char('/') + name);
    return 0;
}
