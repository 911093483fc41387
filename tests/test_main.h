#pragma once

// Every test executable starts through TW_TEST_MAIN (widgets),
// TW_TEST_GUILESS_MAIN (no widgets) or, with a main of its own, calls
// tw::test::isolate() first. Whether CTest runs it or a developer types its
// name, the test then cannot read or write the user's own settings, log files
// or home folder, and shows no window on the user's screen.

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace tw::test {

// Points HOME and the XDG folders at a temporary folder removed at exit, before
// any QSettings or QStandardPaths lookup. Environment variables rather than
// QStandardPaths' test mode, so that the program a test starts (and any peer)
// shares the test's isolated home instead of falling back to the real one.
inline void isolate()
{
    static QTemporaryDir home(QDir::tempPath() + QStringLiteral("/tarnwick-test-XXXXXX"));
    if (!home.isValid()) {
        std::fprintf(stderr, "cannot create a temporary home folder: %s\n", qPrintable(home.errorString()));
        std::exit(1);
    }
    const QString path = home.path();
    qputenv("HOME", QFile::encodeName(path));
    const std::pair<const char *, const char *> folders[]
        = { { "XDG_CONFIG_HOME", "/.config" }, { "XDG_DATA_HOME", "/.local/share" },
              { "XDG_STATE_HOME", "/.local/state" }, { "XDG_CACHE_HOME", "/.cache" } };
    for (const auto &[name, folder] : folders) {
        QDir().mkpath(path + QLatin1String(folder));
        qputenv(name, QFile::encodeName(path + QLatin1String(folder)));
    }
    QDir::setCurrent(path); // files a test names relatively (a trace file, say) land here too
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
}

} // namespace tw::test

// Qt's own main, with the isolation first.
#define TW_TEST_MAIN(TestObject) QTEST_MAIN_WRAPPER(TestObject, tw::test::isolate(); QTEST_MAIN_SETUP())
#define TW_TEST_GUILESS_MAIN(TestObject)                                                                     \
    QTEST_MAIN_WRAPPER(TestObject, tw::test::isolate(); QTEST_QAPP_SETUP(QCoreApplication))
