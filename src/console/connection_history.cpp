#include "connection_history.h"

#include <QSettings>

namespace ConnectionHistory {

namespace {
constexpr int stride = 5;
constexpr int octets = 4;

QString readKey(QSettings &settings, const QString &name)
{
    const QVariant value = settings.value(name);
    return value.canConvert<QString>() ? value.toString() : QString();
}
} // namespace

QString key(int n, int octet)
{
    return QStringLiteral("histroy%1").arg(stride * n + octet);
}

QStringList entry(int n)
{
    QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
    settings.beginGroup(QStringLiteral("Settings"));
    QStringList result;
    for (int i = 0; i < octets; ++i)
        result << readKey(settings, key(n, i));
    return result;
}

void remember(const QStringList &typed)
{
    QStringList address = typed.mid(0, octets);
    while (address.size() < octets)
        address << QString();

    // Entry 5 is never searched: a match there is treated like a new address.
    int match = entryCount - 1;
    for (int n = 0; n < entryCount - 1; ++n) {
        if (entry(n) == address) {
            match = n;
            break;
        }
    }
    if (match == 0)
        return;

    QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
    settings.beginGroup(QStringLiteral("Settings"));
    for (int j = match; j >= 1; --j) {
        for (int i = 0; i < octets; ++i)
            settings.setValue(key(j, i), readKey(settings, key(j - 1, i)));
    }
    for (int i = 0; i < octets; ++i)
        settings.setValue(key(0, i), address.at(i));
}

} // namespace ConnectionHistory

#include "console/console_session.h"

void connectTcpRemembered(ConsoleSession *session, const QString &host)
{
    if (!session)
        return;
    session->ConnectTCP(host);
    const QStringList octets = host.split(QLatin1Char('.'));
    if (octets.size() == 4)
        ConnectionHistory::remember(octets);
}
