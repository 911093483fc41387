#pragma once

// What many tests need and nobody should write twice: free loopback ports, the
// program's settings store (inside the test's temporary home), whole files, random junk for
// the byte-reading engines, and the real program started headless.
//
// Every test executable links this library (tw_add_test), and with it the
// isolation in isolation.cpp, which runs before main: a test run by hand can
// never read or write the user's own settings, logs or home folder.

#include <QByteArray>
#include <QProcess>
#include <QRandomGenerator>
#include <QSettings>
#include <QString>
#include <QStringList>

namespace tw::test {

// Points HOME and the XDG folders at a temporary folder removed at exit. Runs
// by itself before main; exposed for the rare test that needs the path.
QString isolatedHome();

// A port on 127.0.0.1 that nothing was bound to a moment ago.
quint16 freeUdpPort();
quint16 freeTcpPort();

// The store the program keeps its settings in, inside the isolated home.
QSettings settingsStore();

// A file's bytes (empty when it cannot be read), and a file replaced by bytes
// (false when that fails).
QByteArray readFile(const QString &path);
bool writeFile(const QString &path, const QByteArray &bytes);

// Up to maxSize - 1 random bytes.
QByteArray junk(QRandomGenerator &rng, int maxSize);

// Starts the real program with --headless, its settings and working folder in
// `home` (HOME too unless keepHome), no display, and, unless the arguments say
// otherwise, its access list in `home` and TFTP and syslog on free ports.
void startHeadless(
    QProcess &program, const QString &home, const QStringList &arguments, bool keepHome = false);

// Reads the program's standard output into `seen` until it holds `needle`;
// false if the program ends first or a minute passes.
bool waitForOutput(QProcess &program, const QByteArray &needle, QByteArray &seen);

} // namespace tw::test
