#include "browser/browser_window.h"
#include "browser/folder_scanner.h"
#include "util/image_list.h"

#include <QAction>
#include <QComboBox>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTreeView>

class TestBrowserWindow : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void imageList();
    void changeFolderAndCancel();
    void closeHidesAndResizeFills();
};

void TestBrowserWindow::imageList()
{
    for (int index = 1; index <= tw::imageListCount(); ++index) {
        const QIcon &icon = tw::imageListIcon(index);
        QVERIFY2(!icon.isNull(), qPrintable(QString::number(index)));
        QCOMPARE(icon.availableSizes(), QList<QSize>({ QSize(16, 16), QSize(32, 32) }));
        QVERIFY(!icon.pixmap(16).toImage().isNull());
    }
    // Every picture is its own.
    for (int a = 1; a <= tw::imageListCount(); ++a)
        for (int b = a + 1; b <= tw::imageListCount(); ++b)
            QVERIFY(tw::imageListIcon(a).pixmap(32).toImage() != tw::imageListIcon(b).pixmap(32).toImage());
    QVERIFY(tw::imageListIcon(0).isNull());
    QVERIFY(tw::imageListIcon(10).isNull());
    QVERIFY(!tw::programIcon().isNull());
}

void TestBrowserWindow::changeFolderAndCancel()
{
    QTemporaryDir tmp;
    QVERIFY(QDir(tmp.path()).mkpath("cfg"));
    QFile file(tmp.path() + "/cfg/notes.TXT");
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();

    BrowserWindow window;
    QCOMPARE(window.windowTitle(), QStringLiteral("Files"));
    auto *tree = window.findChild<QTreeView *>("PublicShares");
    auto *combo = window.findChild<QComboBox *>("Combo1");
    auto *menu = window.findChild<QAction *>("MnuFolder");
    QVERIFY(tree && combo && menu);
    QCOMPARE(menu->text(), QStringLiteral("Change Folder"));

    QString answer = tmp.path();
    QString askedTitle;
    window.setFolderChooser([&](QWidget *, const QString &title, const QString &) {
        askedTitle = title;
        return answer;
    });
    QSignalSpy changed(&window, &BrowserWindow::sharedFolderChanged);
    window.show();
    menu->trigger();

    QCOMPARE(askedTitle, QStringLiteral("Please choose a folder"));
    QCOMPARE(changed.count(), 1);
    QCOMPARE(changed.at(0).at(0).toString(), tmp.path());
    QCOMPARE(window.folderList(), QStringList({ tmp.path(), tmp.path() + "/cfg/" }));
    QCOMPARE(combo->currentText(), tmp.path());
    QCOMPARE(window.currentFolder(), tmp.path());

    // The view shows the image list's pictures for the stored indexes.
    const QModelIndex root = tree->model()->index(0, 0);
    QVERIFY(tree->isExpanded(root));
    const QModelIndex cfg = tree->model()->index(0, 0, root);
    const QModelIndex notes = tree->model()->index(0, 0, cfg);
    QCOMPARE(notes.data().toString(), QStringLiteral("notes.TXT"));
    QCOMPARE(notes.data(Qt::DecorationRole).value<QIcon>().cacheKey(), tw::imageListIcon(4).cacheKey());
    QCOMPARE(cfg.data(Qt::DecorationRole).value<QIcon>().cacheKey(), tw::imageListIcon(1).cacheKey());

    // Picking another folder in Combo1 is what the Add Network dialog preselects.
    combo->setCurrentIndex(1);
    QCOMPARE(window.currentFolder(), tmp.path() + "/cfg/");

    answer.clear(); // the user cancels
    menu->trigger();
    QCOMPARE(window.sharedFolder(), QString());
    QCOMPARE(changed.count(), 2);
    QCOMPARE(tree->model()->rowCount(), 0);
    QCOMPARE(combo->count(), 0);
}

void TestBrowserWindow::closeHidesAndResizeFills()
{
    BrowserWindow window;
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QSignalSpy closes(&window, &ChildWindow::closeRequested);
    QPointer<BrowserWindow> alive(&window);
    window.close();
    QCOMPARE(closes.count(), 1);
    QVERIFY(alive);
    QVERIFY(!window.isVisible());

    window.show();
    window.resize(500, 400);
    QCOMPARE(window.tree()->geometry().bottom(), 399);
    QCOMPARE(window.tree()->width(), 500);
    window.resize(5, 5); // too small for the menu and the combo: no failure, an empty tree
    QCOMPARE(window.tree()->height(), 0);
}

QTEST_MAIN(TestBrowserWindow)
#include "tst_browser_window.moc"
