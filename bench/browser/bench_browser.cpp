// Show_folders on a generated tree against a bare directory walk
// (`find DIR -printf ''`) over the same tree in the same run.
//
//   bench_browser [--folders N] [--files N] [--runs N] [--dir PATH] [--engine-only]
//
// The scan runs in a shown "Files" window (offscreen platform), so the view
// takes every insertion as it would for the user. A 5 ms timer runs during
// each scan; the longest gap between its ticks is how long the window could
// have left input waiting.
//
// With --dir the tree is kept and reused by the next run of the same sizes.
#include "browser/browser_window.h"
#include "browser/folder_scanner.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>
#include <algorithm>
#include <cstdio>

namespace {

double median(QList<double> values)
{
    std::sort(values.begin(), values.end());
    return values.isEmpty() ? 0 : values.at(values.size() / 2);
}

// Folders in a tree of branching 8 (depth about four), files spread evenly,
// with endings of every kind.
bool generate(const QString &root, int folders, int files)
{
    QStringList paths { root };
    for (int k = 1; k < folders; ++k)
        paths << QStringLiteral("%1/d%2").arg(paths.at((k - 1) / 8)).arg(k);
    for (const QString &path : paths)
        if (!QDir().mkpath(path))
            return false;
    static const char *endings[] = { ".bin", ".txt", ".config", ".ini", ".jpg", ".wav", ".zip", "" };
    for (int f = 0; f < files; ++f) {
        QFile file(QStringLiteral("%1/file%2%3").arg(paths.at(f % folders)).arg(f).arg(endings[f % 8]));
        if (!file.open(QIODevice::WriteOnly))
            return false;
    }
    return true;
}

double timeFind(const QString &dir)
{
    QElapsedTimer clock;
    clock.start();
    QProcess find;
    find.start(QStringLiteral("find"), { dir, QStringLiteral("-printf"), QString() });
    find.waitForFinished(-1);
    return clock.nsecsElapsed() / 1e6;
}

} // namespace

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    const QStringList args = app.arguments();
    auto option = [&args](const char *name, int fallback) {
        const qsizetype at = args.indexOf(QLatin1String(name));
        return at >= 0 && at + 1 < args.size() ? args.at(at + 1).toInt() : fallback;
    };
    const int folders = qMax(1, option("--folders", 2000));
    const int files = option("--files", 50000);
    const int runs = qMax(1, option("--runs", 5));

    QTemporaryDir tmp;
    const qsizetype dirAt = args.indexOf(QLatin1String("--dir"));
    const QString root = (dirAt >= 0 && dirAt + 1 < args.size() ? args.at(dirAt + 1) : tmp.path()) + "/tree";
    // A tree left by an earlier run with the same sizes is reused (--dir).
    const QString marker = QStringLiteral("%1.%2-%3").arg(root).arg(folders).arg(files);
    if (!QFile::exists(marker)) {
        QDir(root).removeRecursively();
        std::printf("generating %d folders and %d files in %s\n", folders, files, qPrintable(root));
        if (!generate(root, folders, files)) {
            std::fprintf(stderr, "could not create the tree\n");
            return 1;
        }
        QFile(marker).open(QIODevice::WriteOnly);
    }
    QProcess probe;
    probe.start(QStringLiteral("find"), { QStringLiteral("--version") });
    if (!probe.waitForFinished() || probe.exitCode() != 0) {
        std::fprintf(stderr, "find (package findutils) is missing\n");
        return 1;
    }

    // --engine-only: the scanner with no window attached, for comparison.
    const bool engineOnly = args.contains(QLatin1String("--engine-only"));
    BrowserWindow window;
    FolderScanner standalone;
    if (!engineOnly)
        window.show();
    FolderScanner *scanner = engineOnly ? &standalone : window.scanner();
    scanner->setSharedFolder(root);

    // The start of a process alone, so the walk's own time can be told apart.
    QTemporaryDir empty;
    QList<double> spawnTimes, findTimes, scanTimes, gaps, runRatios;
    timeFind(root); // warm the directory cache for both sides
    scanner->Show_folders();
    for (int run = 0; run < runs; ++run) {
        spawnTimes << timeFind(empty.path());
        findTimes << timeFind(root);

        QElapsedTimer sinceTick;
        double longestGap = 0;
        QTimer ticker;
        ticker.setInterval(5);
        QObject::connect(&ticker, &QTimer::timeout, [&] {
            longestGap = qMax(longestGap, sinceTick.nsecsElapsed() / 1e6);
            sinceTick.start();
        });
        ticker.start();
        sinceTick.start();
        QElapsedTimer clock;
        clock.start();
        scanner->Show_folders();
        scanTimes << clock.nsecsElapsed() / 1e6;
        // Each run's own ratio: on a shared machine the load drifts between
        // runs, less so between the two halves of one run.
        runRatios << scanTimes.last() / qMax(0.1, findTimes.last() - spawnTimes.last());
        longestGap = qMax(longestGap, sinceTick.nsecsElapsed() / 1e6);
        gaps << longestGap;
    }

    const int nodes = int(scanner->files().size()) + int(scanner->folders()->rowCount());
    const double spawn = median(spawnTimes), find = median(findTimes), scan = median(scanTimes);
    const double walk = qMax(0.1, find - spawn);
    std::printf("tree: %d folder entries, %d files (%d nodes)\n", int(scanner->folders()->rowCount()),
        int(scanner->files().size()), nodes);
    std::printf("medians of %d runs (yield interval %d ms):\n", runs, scanner->yieldInterval());
    std::printf("  find DIR -printf ''       %8.1f ms  (process start alone %.1f ms, walk %.1f ms)\n", find,
        spawn, walk);
    std::printf("  Show_folders %-12s %8.1f ms  (longest wait for events %.1f ms)\n",
        engineOnly ? "(no window)" : "in a window", scan, median(gaps));
    std::printf("  ratio scan / find         %8.2f\n", scan / find);
    std::printf("  ratio scan / bare walk    %8.2f  (goal: at most 3)\n", scan / walk);
    std::printf("  median of per-run ratios  %8.2f  (scan / bare walk)\n", median(runRatios));
    return 0;
}
