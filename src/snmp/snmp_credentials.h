#pragma once

#include <QObject>
#include <QString>

#include <functional>
#include <optional>

// Where the v3 passwords live: the desktop keyring (QtKeychain, service
// "Tarnwick"), never the settings file. Where no keyring answers, a password
// the user typed is kept in memory for this run only, so the user is asked
// again in the next one.
//
// obtain() looks in this run's memory first, then the keyring, then asks the
// user (an input dialog, or the hook tests install); done() gets nullopt when
// the user cancels. What the user typed goes to memory and, best effort, to
// the keyring.
namespace SnmpCredentials {

// The name a password is kept under: "snmp/v3/USER@HOST/auth" or ".../priv".
QString key(const QString &host, const QString &user, const QString &which);

void obtain(QObject *context, const QString &key, const QString &prompt,
    std::function<void(std::optional<QString>)> done);

// Forgets a password that turned out wrong, in memory and in the keyring.
void forget(const QString &key);

// Replaces the dialog (tests): returns what the user would type, or nullopt.
void setPromptHook(std::function<std::optional<QString>(const QString &prompt)> hook);

} // namespace SnmpCredentials
