#include "snmp/snmp_profile.h"

#include <QSettings>

namespace {

QString group(const QString &host)
{
    // Settings keys cannot hold '/' or '\\'; a host never does, but a typed name might.
    QString name = host.trimmed();
    name.replace(QLatin1Char('/'), QLatin1Char('_')).replace(QLatin1Char('\\'), QLatin1Char('_'));
    return QStringLiteral("SnmpProfiles/") + name;
}

int bounded(const QVariant &v, int low, int high, int fallback)
{
    bool ok = false;
    const int n = v.toInt(&ok);
    return ok && n >= low && n <= high ? n : fallback;
}

} // namespace

std::optional<SnmpProfile> SnmpProfiles::load(const QString &host)
{
    if (host.trimmed().isEmpty())
        return std::nullopt;
    QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
    settings.beginGroup(group(host));
    if (!settings.contains(QStringLiteral("Version")))
        return std::nullopt;
    SnmpProfile p;
    SnmpTarget &t = p.target;
    p.version = bounded(settings.value(QStringLiteral("Version")), 1, 3, 1);
    p.intervalMs = bounded(settings.value(QStringLiteral("IntervalMs")), 1000, 86400000, 5000);
    t.community = settings.value(QStringLiteral("Community")).toString();
    t.user = settings.value(QStringLiteral("User")).toString();
    t.context = settings.value(QStringLiteral("Context")).toString();
    t.level = SnmpTarget::Level(bounded(settings.value(QStringLiteral("Level")), 0, 2, int(t.level)));
    t.auth = SnmpTarget::Auth(bounded(settings.value(QStringLiteral("Auth")), 0, 5, int(t.auth)));
    t.priv = SnmpTarget::Priv(bounded(settings.value(QStringLiteral("Priv")), 0, 3, int(t.priv)));
    t.timeoutMs = bounded(settings.value(QStringLiteral("TimeoutMs")), 100, 60000, 1000);
    t.tries = bounded(settings.value(QStringLiteral("Tries")), 1, 10, 3);
    return p;
}

void SnmpProfiles::save(const QString &host, const SnmpProfile &p)
{
    if (host.trimmed().isEmpty())
        return;
    QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
    settings.beginGroup(group(host));
    settings.setValue(QStringLiteral("Version"), p.version);
    settings.setValue(QStringLiteral("IntervalMs"), p.intervalMs);
    settings.setValue(QStringLiteral("Community"), p.target.community);
    settings.setValue(QStringLiteral("User"), p.target.user);
    settings.setValue(QStringLiteral("Context"), p.target.context);
    settings.setValue(QStringLiteral("Level"), int(p.target.level));
    settings.setValue(QStringLiteral("Auth"), int(p.target.auth));
    settings.setValue(QStringLiteral("Priv"), int(p.target.priv));
    settings.setValue(QStringLiteral("TimeoutMs"), p.target.timeoutMs);
    settings.setValue(QStringLiteral("Tries"), p.target.tries);
    QStringList users = settings.value(QStringLiteral("Users")).toStringList();
    if (p.version == 3 && !p.target.user.isEmpty() && !users.contains(p.target.user)) {
        users << p.target.user;
        settings.setValue(QStringLiteral("Users"), users);
    }
}

QStringList SnmpProfiles::rememberName(const QString &host, int keep)
{
    const QString name = host.trimmed();
    if (name.isEmpty())
        return {};
    QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
    QStringList names = settings.value(QStringLiteral("SnmpNamedDevices")).toStringList();
    names.removeAll(name);
    names.prepend(name);
    const QStringList gone = names.mid(keep);
    settings.setValue(QStringLiteral("SnmpNamedDevices"), names.mid(0, keep));
    return gone;
}

QStringList SnmpProfiles::remove(const QString &host)
{
    if (host.trimmed().isEmpty())
        return {};
    QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
    QStringList users = settings.value(group(host) + QStringLiteral("/Users")).toStringList();
    const QString last = settings.value(group(host) + QStringLiteral("/User")).toString();
    if (!last.isEmpty() && !users.contains(last))
        users << last;
    settings.remove(group(host));
    return users;
}
