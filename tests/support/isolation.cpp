// Linked into every test executable (tw_add_test): before main, and so before
// any QSettings or QStandardPaths lookup, HOME and the XDG folders point at a
// temporary folder removed at exit. Environment variables rather than Qt's
// test mode, so that the program a test starts (and any peer) shares the
// test's isolated home instead of falling back to the real one.

#include "test_support.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace tw::test {

QString isolatedHome()
{
    // A test's own child (a helper mode of the same executable) keeps its
    // parent's home rather than making, and failing to remove, one of its own.
    if (qEnvironmentVariableIsSet("TW_TEST_HOME"))
        return qEnvironmentVariable("TW_TEST_HOME");
    static QTemporaryDir home(QDir::tempPath() + QStringLiteral("/tarnwick-test-XXXXXX"));
    if (!home.isValid()) {
        std::fprintf(stderr, "cannot create a temporary home folder: %s\n", qPrintable(home.errorString()));
        std::exit(1);
    }
    const QString path = home.path();
    qputenv("TW_TEST_HOME", QFile::encodeName(path));
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
    return path;
}

namespace {
// Runs during static initialisation, before main.
const QString home = isolatedHome();
} // namespace

} // namespace tw::test
