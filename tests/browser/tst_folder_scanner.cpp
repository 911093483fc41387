#include "browser/folder_scanner.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uid_t nobody = 65534;

void touch(const QString &path)
{
    QFile file(path);
    QVERIFY2(file.open(QIODevice::WriteOnly), qPrintable(path));
    file.write("x");
}

// What one scan produced, in a form that survives a trip through a helper
// process: Combo1, lstfiles, and each folder node with the texts of its
// children.
struct ScanResult
{
    QStringList folders;
    QStringList files;
    QStringList pending;
    QStringList nodes; // "key|parentKey|childText,childText,..."

    static ScanResult of(FolderScanner &scanner)
    {
        ScanResult r { scanner.folders()->stringList(), scanner.files(), scanner.pendingFolders(), {} };
        const QStandardItemModel *tree = scanner.tree();
        std::function<void(const QModelIndex &)> walk = [&](const QModelIndex &parent) {
            for (int row = 0; row < tree->rowCount(parent); ++row) {
                const QModelIndex index = tree->index(row, 0, parent);
                if (index.data(FolderScanner::TagRole).toString() != QLatin1String("Parent"))
                    continue;
                QStringList children;
                for (int c = 0; c < tree->rowCount(index); ++c)
                    children << tree->index(c, 0, index).data().toString();
                r.nodes << index.data(FolderScanner::KeyRole).toString() + '|'
                        + parent.data(FolderScanner::KeyRole).toString() + '|' + children.join(',');
                walk(index);
            }
        };
        walk(QModelIndex());
        return r;
    }
    QByteArray serialise() const
    {
        return QStringList({ folders.join('\n'), files.join('\n'), pending.join('\n'), nodes.join('\n') })
            .join(QStringLiteral("\n--\n"))
            .toUtf8();
    }
    static ScanResult parse(const QByteArray &text)
    {
        const QStringList parts = QString::fromUtf8(text).split(QStringLiteral("\n--\n"));
        auto lines = [&](int i) { return parts.value(i).split('\n', Qt::SkipEmptyParts); };
        return { lines(0), lines(1), lines(2), lines(3) };
    }
};

ScanResult scan(const QString &folder)
{
    FolderScanner scanner;
    scanner.setSharedFolder(folder);
    scanner.Show_folders();
    return ScanResult::of(scanner);
}

// Root reads every folder whatever its mode, so an unreadable folder only
// exists for another user: the scan then runs in a copy of this program that
// has given up root.
ScanResult scanAsUnprivileged(const QString &folder)
{
    if (geteuid() != 0)
        return scan(folder);
    QProcess helper;
    helper.start(QCoreApplication::applicationFilePath(), { QStringLiteral("--scan-as-nobody"), folder });
    if (!helper.waitForFinished(30000) || helper.exitCode() != 0)
        qWarning() << "scan helper failed:" << helper.readAllStandardError();
    return ScanResult::parse(helper.readAllStandardOutput());
}

} // namespace

class TestFolderScanner : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void kindAndImage_data();
    void kindAndImage();
    void treeOfNestedFolders();
    void unreadableFoldersContributeNothing();
    void missingSharedFolder();
    void pendingEventsRunDuringScan();
    void newScanFromInsideScanTakesOver();
};

void TestFolderScanner::kindAndImage_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<int>("image");
    const struct
    {
        const char *name, *kind;
        int image;
    } rows[] = {
        { "router.CONFIG", "", 5 }, // seven characters never equal a four-character ending
        { "notes.TXT", "Config", 4 }, // ".txt" is Config, never text
        { "photo.jpeg", "image", 7 },
        { "backupjpeg", "image", 7 }, // "jpeg" has no dot
        { "song.wav", "audio", 9 }, // audio shows the text picture
        { "song.mp3", "", 5 }, // no ending gives "mp3"
        { "c2900-universalk9.BIN", "IOS", 3 },
        { "ap.imz", "application", 3 },
        { "manual.pdf", "text", 9 },
        { "bin", "", 5 }, // shorter than an ending
        { "README", "", 5 },
    };
    for (const auto &row : rows)
        QTest::newRow(row.name) << QString::fromLatin1(row.name) << QString::fromLatin1(row.kind)
                                << row.image;
}

void TestFolderScanner::kindAndImage()
{
    QFETCH(QString, name);
    QFETCH(QString, kind);
    QFETCH(int, image);
    QCOMPARE(FolderScanner::fileKind(name), kind);
    QCOMPARE(FolderScanner::imageIndex(FolderScanner::fileKind(name)), image);
    // The audio picture is only reachable by a kind no ending produces.
    QCOMPARE(FolderScanner::imageIndex(QStringLiteral("mp3")), 6);
}

void TestFolderScanner::treeOfNestedFolders()
{
    QTemporaryDir tmp;
    const QString root = tmp.path();
    for (const char *dir : { "configs/old", "images/old", "my folder", ".git/objects" })
        QVERIFY(QDir(root).mkpath(dir));
    for (const char *file : { "IOS 15.bin", "startup.TXT", "readme", ".profile", "configs/r1.config",
             "configs/sw1.ini", "configs/old/Old Notes.DOC", "images/photo.JPEG", "images/song.wav",
             "images/old/c.tif", "my folder/a.zip", ".git/HEAD", ".git/objects/x.bin" })
        touch(root + '/' + file);

    FolderScanner scanner;
    scanner.setSharedFolder(root);
    scanner.Show_folders();
    const ScanResult r = ScanResult::of(scanner);

    // Breadth-first; dot folders and everything below them are left out.
    const QString s = root + '/';
    QCOMPARE(r.folders,
        QStringList({ root, s + "configs/", s + "images/", s + "my folder/", s + "configs/old/",
            s + "images/old/" }));
    QCOMPARE(scanner.currentFolder(), root);
    QVERIFY(r.pending.isEmpty());

    // Flat: every folder, at any depth, directly under the root, each with
    // only its own files (a folder's files come before the folders placed
    // after it).
    QCOMPARE(r.nodes,
        QStringList({
            root + "||.profile,IOS 15.bin,readme,startup.TXT," + s + "configs/," + s + "images/," + s
                + "my folder/," + s + "configs/old/," + s + "images/old/",
            s + "configs/|" + root + "|r1.config,sw1.ini",
            s + "images/|" + root + "|photo.JPEG,song.wav",
            s + "my folder/|" + root + "|a.zip",
            s + "configs/old/|" + root + "|Old Notes.DOC",
            s + "images/old/|" + root + "|c.tif",
        }));
    QCOMPARE(r.files.size(), 11);
    QVERIFY(r.files.contains(s + "my folder/a.zip"));
    QVERIFY(r.files.contains(s + ".profile"));
    QVERIFY(!r.files.join(' ').contains(".git"));

    // Keys, tags and pictures of one folder node and one file node.
    const QStandardItem *top = scanner.tree()->item(0);
    QCOMPARE(top->data(FolderScanner::ImageIndexRole).toInt(), 1);
    QCOMPARE(top->data(FolderScanner::TagRole).toString(), QStringLiteral("Parent"));
    QCOMPARE(top->data(FolderScanner::KeyRole).toString(), root);
    const QStandardItem *images = top->child(5);
    QCOMPARE(images->text(), s + "images/");
    QCOMPARE(images->data(FolderScanner::ImageIndexRole).toInt(), 1);
    const QStandardItem *photo = images->child(0);
    QCOMPARE(photo->data(FolderScanner::KeyRole).toString(), s + "images/photo.JPEG");
    QCOMPARE(photo->data(FolderScanner::TagRole).toString(), s + "images/photo.JPEG");
    QCOMPARE(photo->data(FolderScanner::ImageIndexRole).toInt(), 7);
    QCOMPARE(top->child(1)->data(FolderScanner::ImageIndexRole).toInt(), 3); // "IOS 15.bin"
    QCOMPARE(top->child(3)->data(FolderScanner::ImageIndexRole).toInt(), 4); // "startup.TXT"
}

void TestFolderScanner::unreadableFoldersContributeNothing()
{
    QTemporaryDir tmp;
    const QString root = tmp.path();
    QVERIFY(QFile::setPermissions(root,
        QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner | QFileDevice::ReadOther
            | QFileDevice::ExeOther));
    const QString s = root + '/';
    for (const char *dir : { "a locked/inner", "b open" })
        QVERIFY(QDir(root).mkpath(dir));
    touch(s + "a locked/secret.bin");
    touch(s + "a locked/inner/deep.txt");
    touch(s + "b open/ok.bin");
    // A dangling link and a link back to the root must neither stop nor loop.
    QVERIFY(QFile::link(s + "nowhere", s + "gone.bin"));
    QVERIFY(QFile::link(root, s + "b open/loop"));
    for (const QString &dir : { s + "a locked", s + "a locked/inner", s + "b open" })
        QCOMPARE(::chmod(QFile::encodeName(dir).constData(), 0755), 0);
    QCOMPARE(::chmod(QFile::encodeName(s + "a locked").constData(), 0), 0);

    const ScanResult r = scanAsUnprivileged(root);
    QCOMPARE(::chmod(QFile::encodeName(s + "a locked").constData(), 0755), 0);

    QCOMPARE(r.folders, QStringList({ root, s + "a locked/", s + "b open/" }));
    QCOMPARE(r.files, QStringList({ s + "b open/ok.bin" }));
    QCOMPARE(r.nodes,
        QStringList({ root + "||" + s + "a locked/," + s + "b open/", s + "a locked/|" + root + "|",
            s + "b open/|" + root + "|ok.bin" }));

    // As root the same folder is read in full: the check above really was
    // about the folder being unreadable.
    if (geteuid() == 0)
        QVERIFY(scan(root).files.contains(s + "a locked/secret.bin"));
}

void TestFolderScanner::missingSharedFolder()
{
    // A folder that has gone away still shows as the root, with nothing in it.
    const ScanResult missing = scan(QStringLiteral("/nonexistent/tftp"));
    QCOMPARE(missing.folders, QStringList({ "/nonexistent/tftp" }));
    QCOMPARE(missing.nodes, QStringList({ "/nonexistent/tftp||" }));
    QVERIFY(missing.files.isEmpty());
}

void TestFolderScanner::pendingEventsRunDuringScan()
{
    QTemporaryDir tmp;
    for (int i = 0; i < 20; ++i)
        touch(QStringLiteral("%1/f%2.bin").arg(tmp.path()).arg(i));

    FolderScanner scanner;
    scanner.setSharedFolder(tmp.path());
    scanner.setYieldInterval(0);
    int filesWhenTimerRan = -1;
    QTimer::singleShot(0, &scanner, [&] { filesWhenTimerRan = int(scanner.files().size()); });
    scanner.Show_folders();
    // The timer fired inside the scan, after the first entry and before the last.
    QVERIFY2(filesWhenTimerRan > 0 && filesWhenTimerRan < 20, qPrintable(QString::number(filesWhenTimerRan)));

    // A replaced hook is called between every two entries of a folder.
    FolderScanner fresh;
    fresh.setSharedFolder(tmp.path());
    int calls = 0;
    fresh.setEventHook([&] { ++calls; });
    fresh.Show_folders();
    QCOMPARE(calls, 19);
}

void TestFolderScanner::newScanFromInsideScanTakesOver()
{
    QTemporaryDir big, small;
    for (int i = 0; i < 10; ++i)
        QVERIFY(QDir(big.path()).mkpath(QStringLiteral("d%1").arg(i)));
    touch(small.path() + "/only.bin");

    // The user may choose another folder while the old tree is being dropped
    // or while the new one is being read.
    for (const bool whileDropping : { false, true }) {
        FolderScanner scanner;
        scanner.setSharedFolder(big.path());
        if (whileDropping)
            scanner.Show_folders();
        QSignalSpy shown(&scanner, &FolderScanner::foldersShown);
        bool switched = false;
        scanner.setEventHook([&] {
            if (!switched) {
                switched = true;
                scanner.setSharedFolder(small.path());
                scanner.Show_folders();
            }
        });
        scanner.Show_folders();
        QVERIFY(switched);
        QCOMPARE(shown.count(), 1);
        QVERIFY(!scanner.isScanning());
        const ScanResult r = ScanResult::of(scanner);
        QCOMPARE(r.folders, QStringList({ small.path() }));
        QCOMPARE(r.nodes, QStringList({ small.path() + "||only.bin" }));
        QCOMPARE(r.files, QStringList({ small.path() + "/only.bin" }));
    }
}

int main(int argc, char **argv)
{
    if (argc == 3 && qstrcmp(argv[1], "--scan-as-nobody") == 0) {
        if (setgid(nobody) != 0 || setuid(nobody) != 0)
            return 3;
        QCoreApplication app(argc, argv);
        FolderScanner scanner;
        scanner.setSharedFolder(QString::fromLocal8Bit(argv[2]));
        scanner.Show_folders();
        QFile out;
        if (!out.open(stdout, QIODevice::WriteOnly))
            return 4;
        out.write(ScanResult::of(scanner).serialise());
        return 0;
    }
    QCoreApplication app(argc, argv);
    TestFolderScanner test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_folder_scanner.moc"
