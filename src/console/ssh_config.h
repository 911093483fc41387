#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

// What ~/.ssh/config (then the system's ssh_config) says for one host, read
// the way OpenSSH's client reads it: keywords are case-insensitive and take
// "keyword value" or "keyword=value"; the first value obtained for a keyword
// wins, except IdentityFile, whose values add up in order; Host blocks match
// the name as typed (patterns with * and ?, "!" negates); Match blocks know
// all, host, originalhost, user, localuser, canonical and final (any other
// criterion does not match); Include reads more files (relative names are
// taken in ~/.ssh for the user's file, /etc/ssh for the system's).
//
// libssh reads the same files for what it knows itself (HostName, Port,
// ProxyJump, ...); this class serves the keywords it ignores or misreads:
// the authentication choices, keep-alives, and algorithm lists with their
// "+", "-" and "^" forms.
class SshConfig
{
public:
    // Reads files in order for host (as the user typed it); localUser is the
    // login name Match localuser compares with.
    static SshConfig read(const QStringList &files, const QString &host, const QString &localUser);
    // The user's and the system's file for host.
    static SshConfig forHost(const QString &host);

    // The first value of a keyword (lowercase), or fallback.
    QString value(const QString &keyword, const QString &fallback = QString()) const;
    bool has(const QString &keyword) const { return m_values.contains(keyword); }
    // yes/true vs. no/false; anything else is fallback.
    bool flag(const QString &keyword, bool fallback) const;
    // A number, or fallback for none, an absent keyword or bad text.
    int number(const QString &keyword, int fallback) const;

    // IdentityFile values in order, "~" and %d expanded; OpenSSH's default
    // files when none is given.
    QStringList identityFiles() const;
    // The methods to try, in order: PreferredAuthentications minus what
    // PubkeyAuthentication, KbdInteractiveAuthentication and
    // PasswordAuthentication turn off.
    QStringList authMethods() const;

    // An algorithm list as OpenSSH reads it, applied to defaults: "+a,b"
    // appends, "-a,b" removes (wildcards allowed), "^a,b" puts first, a plain
    // list replaces.
    static QString resolveAlgorithms(const QString &spec, const QString &defaults);

private:
    QHash<QString, QString> m_values;
    QStringList m_identityFiles;
};
