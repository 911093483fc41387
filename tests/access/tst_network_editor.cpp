#include "access/access_list.h"
#include "access/network_window.h"
#include "access/networkadd_dialog.h"
#include "test_support.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScopeGuard>
#include <QSlider>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QTreeView>

class TestNetworkEditor : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void octetKeys();
    void windowAddsSavesAndRemoves();
};

// Keys typed as a keyboard does, each to whichever box has the focus at that
// moment, its release included ("\b" is backspace); then the four boxes, "*"
// marking the one with the focus.
void TestNetworkEditor::octetKeys()
{
    const char *const rows[][2] = {
        { "300", "255.0*.0.0" }, // capped, and the third digit moves on
        { "07", "7*.0.0.0" }, // a leading zero is dropped
        { "10.1.22.3", "10.1.22.3*" },
        { "1.2.3.4.", "1.2.3.4*" }, // nowhere to go from the last box
        { "1a-/ 2", "12*.0.0.0" }, // only digits go in
        { "5.\b\b", "5*.0.0.0" }, // backspace in an empty box goes back
        { "\b\b", "0*.0.0.0" },
    };
    for (const auto &[keys, expected] : rows) {
        AccessList list;
        NetworkAddDialog dialog(&list, {}, QString());
        dialog.show();
        QVERIFY(QTest::qWaitForWindowActive(&dialog));
        for (const char *c = keys; *c; ++c) {
            QTest::keyPress(QApplication::focusWidget(), *c);
            QTest::keyRelease(QApplication::focusWidget(), *c);
        }
        QStringList boxes;
        for (int i = 0; i < 4; ++i)
            boxes << dialog.octetBox(i)->text() + (dialog.octetBox(i)->hasFocus() ? "*" : "");
        QCOMPARE(boxes.join('.'), QLatin1String(expected));
    }
}

void TestNetworkEditor::windowAddsSavesAndRemoves()
{
    QTemporaryDir tmp;
    const QString file = tmp.path() + "/ACLIST.ini";
    AccessList list;
    list.setFilePath(file);
    NetworkWindow window(&list);
    window.setFolderSource([] {
        return NetworkWindow::FolderChoice { { "/srv/tftp", "/srv/tftp/cfg/" }, "/srv/tftp/cfg/" };
    });
    window.show();

    // Through the modal dialog, which stays open for more: at once, then with
    // rights, a /16 mask and the empty last folder entry. The file is written
    // once the dialog closes.
    bool dialogSeen = false, savedEarly = true;
    QTimer::singleShot(0, &window, [&] {
        QWidget *modal = QApplication::activeModalWidget();
        const auto closeIt
            = qScopeGuard([modal] { QMetaObject::invokeMethod(modal, "close"); }); // fail, never hang
        auto *dialog = qobject_cast<NetworkAddDialog *>(modal);
        QVERIFY(dialog);
        dialogSeen = true;
        auto *combo = dialog->findChild<QComboBox *>("Combo1");
        QCOMPARE(combo->count(), 3);
        QCOMPARE(combo->itemText(2), QString());
        auto *add = dialog->findChild<QPushButton *>("Command1");
        QTest::mouseClick(add, Qt::LeftButton);
        savedEarly = QFile::exists(file);
        auto *slider = dialog->findChild<QSlider *>("Slider1");
        for (const auto &[prefix, label] :
            { std::pair(0, " 0 . 0 . 0 . 0 "), std::pair(32, " 255. 255. 255. 255") }) {
            slider->setValue(prefix);
            QCOMPARE(dialog->findChild<QLabel *>("Label1")->text(), QLatin1String(label));
        }
        dialog->octetBox(0)->setText("10");
        dialog->octetBox(1)->setText("1");
        slider->setValue(16);
        dialog->findChild<QCheckBox *>("Check1")->setChecked(true);
        dialog->findChild<QCheckBox *>("Check2")->setChecked(true);
        combo->setCurrentIndex(2);
        QTest::mouseClick(add, Qt::LeftButton);
        QVERIFY(dialog->isVisible());
        QTest::mouseClick(dialog->findChild<QPushButton *>("Command2"), Qt::LeftButton);
    });
    window.findChild<QAction *>("MnuAddNetwork")->trigger();
    QVERIFY(dialogSeen && !savedEarly);
    const QByteArray expected = "0.0.0.0; 255. 255. 255. 0 ;no;no;/srv/tftp/cfg/;24;\r\n"
                                "10.1.0.0; 255. 255. 0 . 0 ;yes;yes;;16;\r\n";
    QCOMPARE(tw::test::readFile(file), expected);

    // Nothing selected: nothing goes. Both rows selected: only the upper goes,
    // and the file is left as it was.
    list.appendEntry({ "192.168.0.0", " 255. 255. 255. 0 ", "yes", "no", "/x", 24 });
    QAction *remove = window.findChild<QAction *>("MnuRemoveNetwork");
    remove->trigger();
    QCOMPARE(list.count(), 3);
    for (int row : { 1, 2 })
        window.list()->selectionModel()->select(
            list.index(row, 0), QItemSelectionModel::Select | QItemSelectionModel::Rows);
    remove->trigger();
    QCOMPARE(list.count(), 2);
    QCOMPARE(list.entry(1).network + ' ' + list.entry(2).network, QStringLiteral("0.0.0.0 192.168.0.0"));
    QCOMPARE(tw::test::readFile(file), expected);
}

QTEST_MAIN(TestNetworkEditor)
#include "tst_network_editor.moc"
