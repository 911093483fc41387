#pragma once

#include "snmp/snmp_agent.h"

#include <QStringList>

#include <optional>

// The SNMP tab's settings for one device of the connection history (the
// version, community, v3 user, levels, protocols and context, the interval,
// time-out and tries), kept under "SnmpProfiles/HOST" in the settings store.
// Passwords are not among them: see SnmpCredentials. Each v3 user name ever
// saved for the device is listed too, so its passwords can go with it.
struct SnmpProfile
{
    int version = 1; // 1: "v1 (classic)", 2: "v2c", 3: "v3"
    SnmpTarget target;
    int intervalMs = 5000;

    bool operator==(const SnmpProfile &) const = default;
};

namespace SnmpProfiles {
std::optional<SnmpProfile> load(const QString &host);
void save(const QString &host, const SnmpProfile &profile);
// Drops the device's settings; returns the v3 user names that were saved for it.
QStringList remove(const QString &host);
// Devices connected by name never enter the connection history, whose
// pruning takes the others' settings away: they have a list of their own,
// newest first, of at most keep names. Puts host at its head and returns the
// names that fell off its end.
QStringList rememberName(const QString &host, int keep);
} // namespace SnmpProfiles
