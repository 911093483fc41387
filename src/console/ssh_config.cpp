#include "ssh_config.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

namespace {
// Words of a line: whitespace separates, "double quotes" group, a word that
// starts with # ends the line, and the first "=" may join keyword and value.
QStringList splitLine(const QString &line)
{
    QStringList words;
    QString word;
    bool quoted = false, inWord = false;
    for (int i = 0; i < line.size(); ++i) {
        const QChar c = line.at(i);
        if (c == QLatin1Char('"')) {
            quoted = !quoted;
            inWord = true;
        } else if (!quoted && (c.isSpace() || (c == QLatin1Char('=') && words.isEmpty()))) {
            if (inWord)
                words << word;
            word.clear();
            inWord = false;
        } else if (!quoted && !inWord && c == QLatin1Char('#')) {
            break;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (inWord)
        words << word;
    return words;
}

bool matchPattern(const QString &text, const QString &pattern)
{
    // Only * and ? are special, and "/" is an ordinary character.
    QString expression;
    for (const QChar c : pattern)
        expression += c == QLatin1Char('*') ? QStringLiteral(".*")
            : c == QLatin1Char('?')         ? QStringLiteral(".")
                                            : QRegularExpression::escape(QString(c));
    const QRegularExpression re(
        QRegularExpression::anchoredPattern(expression), QRegularExpression::CaseInsensitiveOption);
    return re.match(text).hasMatch();
}

// A pattern list ("a*,!b" or separate words): one positive match and no
// negated one.
bool matchList(const QString &text, const QStringList &patterns)
{
    bool matched = false;
    for (const QString &pattern : patterns) {
        if (pattern.startsWith(QLatin1Char('!'))) {
            if (matchPattern(text, pattern.mid(1)))
                return false;
        } else if (matchPattern(text, pattern)) {
            matched = true;
        }
    }
    return matched;
}

QString expandHome(QString path)
{
    path.replace(QLatin1String("%d"), QDir::homePath());
    if (path == QLatin1String("~") || path.startsWith(QLatin1String("~/")))
        path = QDir::homePath() + path.mid(1);
    return path;
}

struct Reader
{
    QString host;
    QString localUser;
    QHash<QString, QString> *values;
    QStringList *identities;
    int depth = 0;

    bool matchCriteria(const QStringList &words) const
    {
        // Match criteria all have to hold.
        for (int i = 1; i < words.size(); ++i) {
            const QString criterion = words[i].toLower();
            if (criterion == QLatin1String("all") || criterion == QLatin1String("canonical")
                || criterion == QLatin1String("final"))
                continue;
            if (i + 1 >= words.size())
                return false;
            const QStringList patterns = words[++i].split(QLatin1Char(','));
            const QString hostName = values->value(QStringLiteral("hostname"), host);
            const QString user = values->value(QStringLiteral("user"), localUser);
            if (criterion == QLatin1String("host")               ? !matchList(hostName, patterns)
                    : criterion == QLatin1String("originalhost") ? !matchList(host, patterns)
                    : criterion == QLatin1String("user")         ? !matchList(user, patterns)
                    : criterion == QLatin1String("localuser")    ? !matchList(localUser, patterns)
                                                                 : true)
                return false;
        }
        return true;
    }

    void readFile(const QString &path, const QString &includeBase)
    {
        QFile file(path);
        if (depth > 16 || !file.open(QIODevice::ReadOnly | QIODevice::Text))
            return;
        ++depth;
        bool active = true; // before the first Host line everything applies
        while (!file.atEnd()) {
            const QStringList words = splitLine(QString::fromUtf8(file.readLine()).trimmed());
            if (words.isEmpty())
                continue;
            const QString keyword = words.first().toLower();
            if (keyword == QLatin1String("host")) {
                active = matchList(host, words.mid(1));
                continue;
            }
            if (keyword == QLatin1String("match")) {
                active = matchCriteria(words);
                continue;
            }
            if (!active || words.size() < 2)
                continue;
            if (keyword == QLatin1String("include")) {
                for (const QString &pattern : words.mid(1))
                    include(pattern, includeBase);
            } else if (keyword == QLatin1String("identityfile")) {
                if (words[1].compare(QLatin1String("none"), Qt::CaseInsensitive) != 0)
                    identities->append(expandHome(words[1]));
            } else if ((keyword == QLatin1String("proxyjump") || keyword == QLatin1String("proxycommand"))
                && (values->contains(QStringLiteral("proxyjump"))
                    || values->contains(QStringLiteral("proxycommand")))) {
                continue; // whichever of the two comes first holds
            } else if (!values->contains(keyword)) {
                values->insert(keyword, words.mid(1).join(QLatin1Char(' ')));
            }
        }
        --depth;
    }

    void include(const QString &pattern, const QString &base)
    {
        QString full = expandHome(pattern);
        if (QFileInfo(full).isRelative())
            full = base + QLatin1Char('/') + full;
        const QFileInfo info(full);
        const QStringList names = info.dir().entryList({ info.fileName() }, QDir::Files, QDir::Name);
        for (const QString &name : names)
            readFile(info.dir().filePath(name), base);
    }
};
} // namespace

SshConfig SshConfig::read(const QStringList &files, const QString &host, const QString &localUser)
{
    SshConfig config;
    Reader reader { host, localUser, &config.m_values, &config.m_identityFiles };
    for (const QString &file : files) {
        const bool system = file.startsWith(QLatin1String("/etc/"));
        reader.readFile(
            file, system ? QFileInfo(file).absolutePath() : QDir::homePath() + QStringLiteral("/.ssh"));
    }
    return config;
}

SshConfig SshConfig::forHost(const QString &host)
{
    return read({ QDir::homePath() + QStringLiteral("/.ssh/config"), QStringLiteral("/etc/ssh/ssh_config") },
        host, qEnvironmentVariable("USER"));
}

QString SshConfig::value(const QString &keyword, const QString &fallback) const
{
    return m_values.value(keyword, fallback);
}

bool SshConfig::flag(const QString &keyword, bool fallback) const
{
    const QString text = value(keyword).toLower();
    if (text == QLatin1String("yes") || text == QLatin1String("true"))
        return true;
    if (text == QLatin1String("no") || text == QLatin1String("false"))
        return false;
    return fallback;
}

int SshConfig::number(const QString &keyword, int fallback) const
{
    bool ok = false;
    const int n = value(keyword).toInt(&ok);
    return ok && n >= 0 ? n : fallback;
}

QStringList SshConfig::identityFiles() const
{
    if (!m_identityFiles.isEmpty())
        return m_identityFiles;
    QStringList defaults;
    for (const char *name :
        { "id_rsa", "id_ecdsa", "id_ecdsa_sk", "id_ed25519", "id_ed25519_sk", "id_xmss", "id_dsa" })
        defaults << QDir::homePath() + QStringLiteral("/.ssh/") + QLatin1String(name);
    return defaults;
}

QStringList SshConfig::authMethods() const
{
    QStringList methods = value(
        QStringLiteral("preferredauthentications"), QStringLiteral("publickey,keyboard-interactive,password"))
                              .split(QLatin1Char(','), Qt::SkipEmptyParts);
    if (!flag(QStringLiteral("pubkeyauthentication"), true))
        methods.removeAll(QStringLiteral("publickey"));
    if (!flag(QStringLiteral("kbdinteractiveauthentication"), true))
        methods.removeAll(QStringLiteral("keyboard-interactive"));
    if (!flag(QStringLiteral("passwordauthentication"), true))
        methods.removeAll(QStringLiteral("password"));
    return methods;
}

QString SshConfig::resolveAlgorithms(const QString &setting, const QString &defaults)
{
    const QString trimmed = setting.trimmed();
    if (trimmed.isEmpty())
        return defaults;
    const QChar first = trimmed.at(0);
    const QStringList named = trimmed.mid(QStringLiteral("+-^").contains(first) ? 1 : 0)
                                  .split(QLatin1Char(','), Qt::SkipEmptyParts);
    QStringList list = defaults.split(QLatin1Char(','), Qt::SkipEmptyParts);
    if (first == QLatin1Char('+')) {
        for (const QString &name : named) {
            if (!list.contains(name))
                list << name;
        }
    } else if (first == QLatin1Char('-')) {
        list.removeIf([&named](const QString &name) { return matchList(name, named); });
    } else if (first == QLatin1Char('^')) {
        list.removeIf([&named](const QString &name) { return named.contains(name); });
        list = named + list;
    } else {
        list = named;
    }
    return list.join(QLatin1Char(','));
}
