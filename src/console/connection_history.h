#pragma once

#include <QStringList>

// The recently used TCP addresses of the connection dialog, kept in the
// settings store (organisation and application "Tarnwick", group "Settings").
//
// Entry n (0 newest to 5 oldest) keeps its four octets as text under the keys
// "histroy" 5n to 5n+3; the fifth number of each stride is unused. Key name
// and stride are what earlier releases wrote, so users keep their history.
//
// remember() keeps the list most-recent-first without duplicates: an address
// already held in entries 0 to 4 moves to the front, a new one pushes the
// others down and the sixth entry drops off.
namespace ConnectionHistory {

constexpr int entryCount = 6;

// The four octets of entry n; unreadable or missing keys read as "".
QStringList entry(int n);

void remember(const QStringList &octets);

// The settings key of octet `octet` of entry n ("histroy" followed by 5n + octet).
QString key(int n, int octet);

} // namespace ConnectionHistory

class ConsoleSession;

// Connects session to host over TCP exactly as OK in the connection dialog
// does: ConnectTCP, then the history update. A host that is not four dotted
// parts (a name) connects without entering the history, whose entries are
// four octet boxes.
void connectTcpRemembered(ConsoleSession *session, const QString &host);
