#include "tarnwick_main.h"

#include "app/application.h"
#include "app/command_line.h"
#include "app/unix_signals.h"
#include "util/image_list.h"

#include <QApplication>
#include <cstdio>

namespace {
// A desktop session is expected on Linux; without one the program still
// serves TFTP and logs, so it says so and runs headless instead of aborting.
bool displayMissing()
{
#if defined(Q_OS_LINUX)
    return qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")
        && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM");
#else
    return false;
#endif
}
} // namespace

int tarnwickMain(int argc, char **argv)
{
    // The command line is read before the application object exists, so that
    // --help, --version and mistakes need no display, and headless runs get
    // the offscreen platform.
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    CommandLineOptions options;
    const CommandLineResult parsed = parseCommandLine(arguments, options);
    if (parsed.action == CommandLineResult::ExitOk) {
        std::fputs(qPrintable(parsed.output), stdout);
        return 0;
    }
    if (parsed.action == CommandLineResult::ExitError) {
        std::fprintf(stderr, "tarnwick: %s\n", qPrintable(parsed.output));
        return 2;
    }
    if (!options.headless && displayMissing()) {
        std::fprintf(stderr, "tarnwick: no display found (DISPLAY and WAYLAND_DISPLAY are empty); "
                             "starting in --headless mode\n");
        options.headless = true;
    }
    if (options.headless)
        qputenv("QT_QPA_PLATFORM", "offscreen");

    QApplication app(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Tarnwick"));
    QApplication::setApplicationName(QStringLiteral("Tarnwick"));
    QApplication::setApplicationVersion(QStringLiteral(TARNWICK_VERSION));
    QApplication::setWindowIcon(tw::programIcon());

    Application tarnwick(options);
    UnixSignalWatcher signalWatcher;
    QObject::connect(&signalWatcher, &UnixSignalWatcher::terminationRequested, &app, [&] {
        tarnwick.shutDown();
        QApplication::quit();
    });
    tarnwick.start();
    return QApplication::exec();
}
