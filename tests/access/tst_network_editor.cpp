#include "access/access_list.h"
#include "access/network_window.h"
#include "access/networkadd_dialog.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QSlider>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QTreeView>

namespace {

// Types as a keyboard does: each key goes to whichever box has the focus at
// that moment, its release included ("\b" is backspace).
void type(const QString &keys)
{
    for (const QChar c : keys) {
        QWidget *target = QApplication::focusWidget();
        QVERIFY(target);
        if (c == QLatin1Char('\b'))
            QTest::keyPress(target, Qt::Key_Backspace);
        else
            QTest::keyPress(target, c.toLatin1());
        target = QApplication::focusWidget();
        if (c == QLatin1Char('\b'))
            QTest::keyRelease(target, Qt::Key_Backspace);
        else
            QTest::keyRelease(target, c.toLatin1());
    }
}

QStringList octets(const NetworkAddDialog &dialog)
{
    QStringList texts;
    for (int i = 0; i < 4; ++i)
        texts << dialog.octetBox(i)->text();
    return texts;
}

} // namespace

class TestNetworkEditor : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void octetKeys_data();
    void octetKeys();
    void maskLabel_data();
    void maskLabel();
    void addEntries();
    void windowAddsSavesAndRemoves();
};

void TestNetworkEditor::octetKeys_data()
{
    QTest::addColumn<QString>("keys");
    QTest::addColumn<QStringList>("texts");
    QTest::addColumn<int>("focus");
    QTest::newRow("300 is capped and moves on") << "300" << QStringList { "255", "0", "0", "0" } << 1;
    QTest::newRow("999 then dot") << "999." << QStringList { "255", "0", "0", "0" } << 2;
    QTest::newRow("leading zero dropped") << "07" << QStringList { "7", "0", "0", "0" } << 0;
    QTest::newRow("dots advance") << "10.1.22.3" << QStringList { "10", "1", "22", "3" } << 3;
    QTest::newRow("dot in the last box stays") << "1.2.3.4." << QStringList { "1", "2", "3", "4" } << 3;
    QTest::newRow("third digit moves on") << "1234" << QStringList { "123", "4", "0", "0" } << 1;
    QTest::newRow("only digits go in") << "1a-/ 2" << QStringList { "12", "0", "0", "0" } << 0;
    QTest::newRow("backspace in empty box goes back") << "5.\b\b" << QStringList { "5", "0", "0", "0" } << 0;
    QTest::newRow("backspace in the first box stays") << "\b\b" << QStringList { "0", "0", "0", "0" } << 0;
}

void TestNetworkEditor::octetKeys()
{
    QFETCH(QString, keys);
    QFETCH(QStringList, texts);
    QFETCH(int, focus);
    AccessList list;
    NetworkAddDialog dialog(&list, {}, QString());
    dialog.show();
    QVERIFY(QTest::qWaitForWindowActive(&dialog));
    QCOMPARE(QApplication::focusWidget(), dialog.octetBox(0));
    type(keys);
    QCOMPARE(octets(dialog), texts);
    QCOMPARE(QApplication::focusWidget(), dialog.octetBox(focus));
}

void TestNetworkEditor::maskLabel_data()
{
    QTest::addColumn<int>("prefix");
    QTest::addColumn<QString>("label");
    QTest::newRow("0") << 0 << " 0 . 0 . 0 . 0 ";
    QTest::newRow("24") << 24 << " 255. 255. 255. 0 ";
    QTest::newRow("25") << 25 << " 255. 255. 255. 128";
    QTest::newRow("32") << 32 << " 255. 255. 255. 255";
}

void TestNetworkEditor::maskLabel()
{
    QFETCH(int, prefix);
    QFETCH(QString, label);
    AccessList list;
    NetworkAddDialog dialog(&list, {}, QString());
    auto *slider = dialog.findChild<QSlider *>("Slider1");
    QCOMPARE(slider->value(), 24);
    slider->setValue(prefix);
    QCOMPARE(dialog.findChild<QLabel *>("Label1")->text(), label);
    QCOMPARE(dialog.findChild<QLabel *>("Label1")->font().family(), QStringLiteral("Courier"));
}

void TestNetworkEditor::addEntries()
{
    AccessList list;
    const QStringList folders { "/srv/tftp", "/srv/tftp/cfg/" };
    NetworkAddDialog dialog(&list, folders, "/srv/tftp/cfg/");
    dialog.show();
    auto *combo = dialog.findChild<QComboBox *>("Combo1");
    auto *add = dialog.findChild<QPushButton *>("Command1");
    QCOMPARE(dialog.windowTitle(), QStringLiteral("Add Network"));
    QCOMPARE(combo->count(), 3);
    QCOMPARE(combo->itemText(2), QString()); // the trailing empty entry
    QCOMPARE(combo->currentText(), QStringLiteral("/srv/tftp/cfg/"));

    // At once: 0.0.0.0 with the 24-bit mask, no rights, the preselected folder.
    QTest::mouseClick(add, Qt::LeftButton);
    QCOMPARE(list.count(), 1);
    const AccessEntry first = list.entry(1);
    QCOMPARE(first.network, QStringLiteral("0.0.0.0"));
    QCOMPARE(first.mask, QStringLiteral(" 255. 255. 255. 0 "));
    QCOMPARE(first.read, QStringLiteral("no"));
    QCOMPARE(first.write, QStringLiteral("no"));
    QCOMPARE(first.folder, QStringLiteral("/srv/tftp/cfg/"));
    QCOMPARE(first.prefix, 24);

    // The dialog stays open; a second entry with rights, /16, the empty folder.
    QVERIFY(dialog.isVisible());
    dialog.octetBox(0)->setText("10");
    dialog.octetBox(1)->setText("1");
    dialog.findChild<QSlider *>("Slider1")->setValue(16);
    dialog.findChild<QCheckBox *>("Check1")->setChecked(true);
    dialog.findChild<QCheckBox *>("Check2")->setChecked(true);
    combo->setCurrentIndex(2);
    QTest::mouseClick(add, Qt::LeftButton);
    const AccessEntry second = list.entry(2);
    QCOMPARE(second.network, QStringLiteral("10.1.0.0"));
    QCOMPARE(second.mask, QStringLiteral(" 255. 255. 0 . 0 "));
    QCOMPARE(second.read, QStringLiteral("yes"));
    QCOMPARE(second.write, QStringLiteral("yes"));
    QCOMPARE(second.folder, QString());
    QCOMPARE(second.prefix, 16);

    // Nothing is checked: the untouched caption goes in as the folder.
    combo->setEditText("Choose Folder");
    QTest::mouseClick(add, Qt::LeftButton);
    QCOMPARE(list.entry(3).folder, QStringLiteral("Choose Folder"));
}

void TestNetworkEditor::windowAddsSavesAndRemoves()
{
    QTemporaryDir tmp;
    const QString file = tmp.path() + "/ACLIST.ini";
    AccessList list;
    list.setFilePath(file);
    NetworkWindow window(&list);
    window.setFolderSource([] { return NetworkWindow::FolderChoice { { "/srv/tftp" }, "/srv/tftp" }; });
    window.show();
    auto *view = window.findChild<QTreeView *>("ListView1");
    QVERIFY(view);
    QCOMPARE(view->model()->headerData(1, Qt::Horizontal).toString(), QStringLiteral("Subnet Mask"));

    // Two entries through the modal dialog; the file is written once it closes.
    bool dialogSeen = false;
    bool savedEarly = true;
    QTimer::singleShot(0, &window, [&] {
        QWidget *modal = QApplication::activeModalWidget();
        auto *dialog = qobject_cast<NetworkAddDialog *>(modal);
        if (!dialog) {
            if (modal) // not ours: end it so the test fails instead of hanging
                modal->close();
            return;
        }
        dialogSeen = true;
        auto *add = dialog->findChild<QPushButton *>("Command1");
        QTest::mouseClick(add, Qt::LeftButton);
        savedEarly = QFile::exists(file);
        dialog->octetBox(0)->setText("192");
        dialog->octetBox(1)->setText("168");
        dialog->findChild<QCheckBox *>("Check1")->setChecked(true);
        QTest::mouseClick(add, Qt::LeftButton);
        QTest::mouseClick(dialog->findChild<QPushButton *>("Command2"), Qt::LeftButton);
    });
    window.findChild<QAction *>("MnuAddNetwork")->trigger();
    QVERIFY(dialogSeen);
    QVERIFY(!savedEarly);
    QVERIFY(!window.findChild<NetworkAddDialog *>()); // gone with Close

    QFile saved(file);
    QVERIFY(saved.open(QIODevice::ReadOnly));
    const QByteArray expected = "0.0.0.0; 255. 255. 255. 0 ;no;no;/srv/tftp;24;\r\n"
                                "192.168.0.0; 255. 255. 255. 0 ;yes;no;/srv/tftp;24;\r\n";
    QCOMPARE(saved.readAll(), expected);
    saved.close();

    // Both rows selected: only the upper goes, and the file keeps it.
    list.appendEntry({ "10.0.0.0", " 255. 0 . 0 . 0 ", "yes", "yes", "/x", 8 });
    view->selectionModel()->select(list.index(1, 0), QItemSelectionModel::Select | QItemSelectionModel::Rows);
    view->selectionModel()->select(list.index(2, 0), QItemSelectionModel::Select | QItemSelectionModel::Rows);
    window.findChild<QAction *>("MnuRemoveNetwork")->trigger();
    QCOMPARE(list.count(), 2);
    QCOMPARE(list.entry(1).network, QStringLiteral("0.0.0.0"));
    QCOMPARE(list.entry(2).network, QStringLiteral("10.0.0.0"));
    QVERIFY(saved.open(QIODevice::ReadOnly));
    QCOMPARE(saved.readAll(), expected);
    saved.close();

    // Nothing selected: nothing removed. Closing hides the window.
    view->clearSelection();
    window.findChild<QAction *>("MnuRemoveNetwork")->trigger();
    QCOMPARE(list.count(), 2);
    QSignalSpy closes(&window, &ChildWindow::closeRequested);
    window.close();
    QCOMPARE(closes.count(), 1);
    QVERIFY(!window.isVisible());
}

QTEST_MAIN(TestNetworkEditor)
#include "tst_network_editor.moc"
