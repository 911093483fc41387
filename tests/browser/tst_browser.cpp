#include "browser/browser_window.h"
#include "browser/folder_scanner.h"
#include "util/image_list.h"

#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QTreeView>
#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void touch(const QString &root, std::initializer_list<const char *> files)
{
    for (const char *name : files) {
        QFile file(root + '/' + name);
        QVERIFY2(QDir(root).mkpath(QFileInfo(name).path()) && file.open(QIODevice::WriteOnly), name);
    }
}

// The expected lines of shown(), with "~" standing for the scanned folder.
QStringList lines(const char *text, const QString &root)
{
    return QString::fromUtf8(text).replace('~', root).split('\n');
}

// What one scan shows, as lines that survive a trip through a helper process:
// Combo1, lstfiles and the queue, then each folder node as
// "key:image|parent key|child:image,...". A file whose key or tag is not its
// full path is marked with "!".
QStringList shown(FolderScanner &scanner)
{
    QStringList r { scanner.folders()->stringList().join(','), scanner.files().join(','),
        scanner.pendingFolders().join(',') };
    const QStandardItemModel *tree = scanner.tree();
    for (const QModelIndex &node : tree->match(tree->index(0, 0), FolderScanner::TagRole, "Parent", -1,
             Qt::MatchRecursive | Qt::MatchExactly)) {
        const QString key = node.data(FolderScanner::KeyRole).toString();
        QStringList children;
        for (int row = 0; row < tree->rowCount(node); ++row) {
            const QModelIndex child = tree->index(row, 0, node);
            const QString tag = child.data(FolderScanner::TagRole).toString();
            const QString full = QDir(key).filePath(child.data().toString());
            const bool keyed = tag == "Parent" || (tag == full && child.data(FolderScanner::KeyRole) == full);
            children << child.data().toString() + ':' + child.data(FolderScanner::ImageIndexRole).toString()
                    + (keyed ? "" : "!");
        }
        r << key + ':' + node.data(FolderScanner::ImageIndexRole).toString() + '|'
                + node.parent().data(FolderScanner::KeyRole).toString() + '|' + children.join(',');
    }
    return r;
}

QStringList scan(const QString &folder)
{
    FolderScanner scanner;
    scanner.setSharedFolder(folder);
    scanner.Show_folders();
    return shown(scanner);
}

// Root reads every folder whatever its mode, so an unreadable folder only
// exists for another user: the scan then runs in a copy of this program that
// has given up root.
QStringList scanAsUnprivileged(const QString &folder)
{
    if (geteuid() != 0)
        return scan(folder);
    QProcess helper;
    helper.start(QCoreApplication::applicationFilePath(), { QStringLiteral("--scan-as-nobody"), folder });
    if (!helper.waitForFinished(30000) || helper.exitCode() != 0)
        qWarning() << "scan helper failed:" << helper.readAllStandardError();
    return QString::fromUtf8(helper.readAllStandardOutput()).split('\n');
}

} // namespace

class TestBrowser : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void treeOfNestedFolders();
    void unreadableAndMissingFolders();
    void everyFolderByEveryName();
    void scanLetsEventsInAndCanBeTakenOver();
    void windowChangesFolderAndCancels();
};

// Breadth-first Combo1; a flat tree (every folder directly under the root,
// its files before the folders placed after it); dot folders left out with
// everything below them; the picture from the last four characters of a name,
// lower-cased (".config" never matches, "jpeg" needs no dot, ".TXT" is a
// configuration).
void TestBrowser::treeOfNestedFolders()
{
    QTemporaryDir tmp;
    touch(tmp.path(),
        { "IOS 15.bin", "startup.TXT", "readme", ".profile", "configs/r1.config", "configs/sw1.ini",
            "configs/manual.pdf", "configs/old/Old Notes.DOC", "images/photo.JPEG", "images/backupjpeg",
            "images/song.wav", "images/old/c.tif", "my folder/a.zip", "my folder/bin", ".git/HEAD",
            ".git/objects/x.bin" });
    QCOMPARE(scan(tmp.path()),
        lines("~,~/configs/,~/images/,~/my folder/,~/configs/old/,~/images/old/\n"
              "~/.profile,~/IOS 15.bin,~/readme,~/startup.TXT,~/configs/manual.pdf,~/configs/r1.config,"
              "~/configs/sw1.ini,~/images/backupjpeg,~/images/photo.JPEG,~/images/song.wav,~/my folder/a.zip,"
              "~/my folder/bin,~/configs/old/Old Notes.DOC,~/images/old/c.tif\n\n"
              "~:1||.profile:5,IOS 15.bin:3,readme:5,startup.TXT:4,~/configs/:1,~/images/:1,~/my folder/:1,"
              "~/configs/old/:1,~/images/old/:1\n"
              "~/configs/:1|~|manual.pdf:9,r1.config:5,sw1.ini:4\n"
              "~/images/:1|~|backupjpeg:7,photo.JPEG:7,song.wav:9\n"
              "~/my folder/:1|~|a.zip:3,bin:5\n"
              "~/configs/old/:1|~|Old Notes.DOC:9\n"
              "~/images/old/:1|~|c.tif:7",
            tmp.path()));
}

// Unreadable folders, dangling links and links back into the tree neither
// stop nor loop the scan; a shared folder that has gone away is an empty root.
void TestBrowser::unreadableAndMissingFolders()
{
    QTemporaryDir tmp;
    const QString s = tmp.path() + '/';
    const auto mode
        = [](const QString &path, mode_t bits) { return ::chmod(QFile::encodeName(path).constData(), bits); };
    touch(tmp.path(), { "a locked/secret.bin", "a locked/inner/deep.txt", "b open/ok.bin" });
    QVERIFY(QFile::link(s + "nowhere", s + "gone.bin") && QFile::link(tmp.path(), s + "b open/loop"));
    for (const QString &dir : { tmp.path(), s + "a locked/inner", s + "b open" })
        QCOMPARE(mode(dir, 0755), 0);
    QCOMPARE(mode(s + "a locked", 0), 0);
    const QStringList r = scanAsUnprivileged(tmp.path());
    QCOMPARE(mode(s + "a locked", 0755), 0);
    QCOMPARE(r,
        lines("~,~/a locked/,~/b open/\n~/b open/ok.bin\n\n~:1||~/a locked/:1,~/b open/:1\n~/a locked/:1|~|\n"
              "~/b open/:1|~|ok.bin:3",
            tmp.path()));
    // As root the same folder is read in full: the check above really was
    // about the folder being unreadable.
    if (geteuid() == 0)
        QVERIFY(scan(tmp.path()).at(1).contains(s + "a locked/secret.bin"));

    QCOMPARE(scan("/nonexistent/tftp"), lines("~\n\n\n~:1||", "/nonexistent/tftp"));
}

// A link that sorts before its folder hides nothing, nor does a second link
// to it: each name is a folder of its own in the tree and the lists. Only a
// link leading back to the folder being scanned, to one on the way to it or
// to an ancestor is not followed, even when two links lead to each other's
// folders.
void TestBrowser::everyFolderByEveryName()
{
    QTemporaryDir tmp;
    const QString s = tmp.path() + '/';
    touch(tmp.path(), { "ios-15/image.bin", "a/x.txt", "c/y.txt" });
    QVERIFY(QFile::link("ios-15", s + "current") && QFile::link(s + "ios-15", s + "zz-also"));
    QVERIFY(QFile::link("..", s + "ios-15/up") && QFile::link(".", s + "ios-15/self"));
    QVERIFY(QFile::link("../c", s + "a/b") && QFile::link("../a", s + "c/d"));
    QCOMPARE(scan(tmp.path()),
        lines("~,~/a/,~/c/,~/current/,~/ios-15/,~/zz-also/,~/a/b/,~/c/d/\n"
              "~/a/x.txt,~/c/y.txt,~/current/image.bin,~/ios-15/image.bin,~/zz-also/image.bin,~/a/b/y.txt,"
              "~/c/d/x.txt\n\n"
              "~:1||~/a/:1,~/c/:1,~/current/:1,~/ios-15/:1,~/zz-also/:1,~/a/b/:1,~/c/d/:1\n"
              "~/a/:1|~|x.txt:4\n~/c/:1|~|y.txt:4\n~/current/:1|~|image.bin:3\n~/ios-15/:1|~|image.bin:3\n"
              "~/zz-also/:1|~|image.bin:3\n~/a/b/:1|~|y.txt:4\n~/c/d/:1|~|x.txt:4",
            tmp.path()));
}

void TestBrowser::scanLetsEventsInAndCanBeTakenOver()
{
    QTemporaryDir big, small;
    for (int i = 0; i < 20; ++i)
        QVERIFY(QDir(big.path()).mkpath(QStringLiteral("d%1").arg(i)));
    touch(small.path(), { "only.bin" });

    // A due timer fires inside the scan. A replaced hook runs between every
    // two folders of the old tree as it is dropped and every two entries read.
    FolderScanner scanner;
    scanner.setSharedFolder(big.path());
    scanner.setYieldInterval(0);
    int foldersWhenTimerRan = -1, calls = 0;
    QTimer::singleShot(0, &scanner, [&] { foldersWhenTimerRan = scanner.folders()->rowCount(); });
    scanner.Show_folders();
    QVERIFY2(foldersWhenTimerRan > 1 && foldersWhenTimerRan < 21,
        qPrintable(QString::number(foldersWhenTimerRan)));
    scanner.setEventHook([&] { ++calls; });
    scanner.Show_folders();
    QCOMPARE(calls, 20 + 19);

    // The user may choose another folder while the old tree is being dropped
    // or while the new one is being read.
    for (const bool whileDropping : { false, true }) {
        FolderScanner switching;
        switching.setSharedFolder(big.path());
        if (whileDropping)
            switching.Show_folders();
        QSignalSpy done(&switching, &FolderScanner::foldersShown);
        bool switched = false;
        switching.setEventHook([&] {
            if (!std::exchange(switched, true)) {
                switching.setSharedFolder(small.path());
                switching.Show_folders();
            }
        });
        switching.Show_folders();
        QVERIFY(switched && !switching.isScanning());
        QCOMPARE(done.count(), 1);
        QCOMPARE(shown(switching), lines("~\n~/only.bin\n\n~:1||only.bin:3", small.path()));
    }
}

void TestBrowser::windowChangesFolderAndCancels()
{
    // The image list: nine pictures of their own; none outside.
    QList<QImage> pictures;
    for (int index = 1; index <= tw::imageListCount(); ++index) {
        pictures << tw::imageListIcon(index).pixmap(32).toImage();
        QVERIFY(!pictures.last().isNull() && pictures.indexOf(pictures.last()) == index - 1);
    }
    QVERIFY(tw::imageListIcon(0).isNull() && tw::imageListIcon(10).isNull() && !tw::programIcon().isNull());

    QTemporaryDir tmp;
    touch(tmp.path(), { "cfg/notes.TXT" });
    BrowserWindow window;
    auto *menu = window.findChild<QAction *>("MnuFolder");
    QVERIFY(menu);
    QString answer = tmp.path();
    window.setFolderChooser([&](QWidget *, const QString &title, const QString &) {
        return title == QLatin1String("Please choose a folder") ? answer : QStringLiteral("/wrong title");
    });
    QStringList changes;
    connect(
        &window, &BrowserWindow::sharedFolderChanged, this, [&changes](const QString &to) { changes << to; });
    window.show();
    menu->trigger();
    QCOMPARE(window.folderList(), QStringList({ tmp.path(), tmp.path() + "/cfg/" }));
    QCOMPARE(window.currentFolder(), tmp.path());

    // The view shows the image list's pictures for the stored indexes.
    const QModelIndex root = window.tree()->model()->index(0, 0);
    QVERIFY(window.tree()->isExpanded(root));
    const QModelIndex cfg = window.tree()->model()->index(0, 0, root);
    QCOMPARE(cfg.data(Qt::DecorationRole).value<QIcon>().cacheKey(), tw::imageListIcon(1).cacheKey());
    QCOMPARE(cfg.model()->index(0, 0, cfg).data(Qt::DecorationRole).value<QIcon>().cacheKey(),
        tw::imageListIcon(4).cacheKey());

    // Picking another folder in Combo1 is what the Add Network dialog preselects.
    window.combo()->setCurrentIndex(1);
    QCOMPARE(window.currentFolder(), tmp.path() + "/cfg/");

    // The tree fills the window below the menu and the combo, if there is room.
    window.resize(500, 400);
    QCOMPARE(window.tree()->geometry().bottomRight(), QPoint(499, 399));
    window.resize(5, 5);
    QCOMPARE(window.tree()->height(), 0);

    answer.clear(); // the user cancels
    menu->trigger();
    QCOMPARE(window.sharedFolder(), QString());
    QCOMPARE(changes, QStringList({ tmp.path(), QString() }));
    QCOMPARE(window.tree()->model()->rowCount(), 0);
    QCOMPARE(window.combo()->count(), 0);
}

int main(int argc, char **argv)
{
    if (argc == 3 && qstrcmp(argv[1], "--scan-as-nobody") == 0) {
        constexpr uid_t nobody = 65534;
        if (setgid(nobody) != 0 || setuid(nobody) != 0)
            return 3;
        QCoreApplication app(argc, argv);
        return std::fputs(qUtf8Printable(scan(QString::fromLocal8Bit(argv[2])).join('\n')), stdout) < 0 ? 4
                                                                                                        : 0;
    }
    QApplication app(argc, argv);
    TestBrowser test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_browser.moc"
