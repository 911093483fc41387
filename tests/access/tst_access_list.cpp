// The access list: its ACLIST.ini file read and written back, the decisions
// made from it with the transfer rows they leave, and its editor (the Network
// window and the Add Network dialog).

#include "access/access_list.h"
#include "access/check_access.h"
#include "access/mask_display.h"
#include "access/network_window.h"
#include "access/networkadd_dialog.h"
#include "test_support.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QSlider>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QTreeView>

namespace {
AccessList *loaded(AccessList &list, const QString &path)
{
    list.setFilePath(path);
    list.load_ACL();
    return &list;
}
} // namespace

class TestAccessList : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QStringList m_rows; // file, from, to, status of each recorded transfer row
    // Rows in the file's own line format, separated by '|'; requester 10.1.2.3 unless given.
    int decide(
        const QString &rows, int kind, const QString &address = "10.1.2.3", const AccessVeto &veto = {})
    {
        AccessList list;
        for (const QString &line : rows.isEmpty() ? QStringList() : rows.split('|'))
            list.appendEntry(AccessList::entryFromLine(line));
        m_rows.clear();
        return CheckAccess(
            list, { address, "10.9.9.9", kind, "image.bin" },
            [this](const QString &f, const QString &from, const QString &to, const QString &s) {
                m_rows << QStringList { f, from, to, s }.join(',');
            },
            veto);
    }

private Q_SLOTS:
    // The two conversions every row goes through: a prefix to the mask the window shows,
    // and one dotted field to its value (halves round to even).
    void masksAndOctets()
    {
        const QList<QPair<int, QString>> masks { { 0, " 0 . 0 . 0 . 0 " }, { 8, " 255. 0 . 0 . 0 " },
            { 20, " 255. 255. 240. 0 " }, { 25, " 255. 255. 255. 128" }, { 32, " 255. 255. 255. 255" },
            { 40, " 255. 255. 255. 255" } };
        for (const auto &[prefix, text] : masks)
            QCOMPARE(maskDisplayForm(prefix), text);
        const QList<QPair<QString, int>> octets { { " 255", 255 }, { " 0 ", 0 }, { "", 0 }, { "1e2", 100 },
            { "2.5", 2 }, { "7.6", 8 }, { "-1", -1 }, { "abc", 0 }, { "12ab", 12 }, { "40000", 40000 } };
        for (const auto &[text, value] : octets)
            QCOMPARE(octetValue(text), std::optional<int>(value));
    }

    // Loading appends the file's lines in order, blank ones included, whatever the
    // line ends; fields missing at the end read empty, extra ones are ignored.
    // Saving rewrites the file whole, leaving out every row with no network.
    void loadAndSave()
    {
        const QString path = m_dir.filePath("load.ini");
        AccessList list;
        list.appendEntry({ "existing", "m", "yes", "yes", "/z", 1 });
        QCOMPARE(loaded(list, path)->count(), 1); // no file yet: nothing
        QVERIFY(tw::test::writeFile(path,
            "10.0.0.0; 255. 0 . 0 . 0 ;yes;yes;/a;8;\r\n\r\n192.168.1.0;m;no;yes;/b;24\n"
            "172.16.0.0;m;yes;no;/c;12;x;y;\r1.1.1.1;m"));
        QCOMPARE(loaded(list, path)->count(), 6);
        QStringList lines;
        for (int row = 1; row <= 7; ++row) // the last one out of range
            lines << AccessList::lineFor(list.entry(row));
        QCOMPARE(lines,
            QStringList({ "existing;m;yes;yes;/z;1;", "10.0.0.0; 255. 0 . 0 . 0 ;yes;yes;/a;8;", ";;;;;0;",
                "192.168.1.0;m;no;yes;/b;24;", "172.16.0.0;m;yes;no;/c;12;", "1.1.1.1;m;;;;0;", ";;;;;0;" }));
        // The model shows the columns the window lists, the prefix as the row's tag.
        QCOMPARE(list.headerData(1, Qt::Horizontal).toString(), QString("Subnet Mask"));
        QCOMPARE(list.index(1, 0).data(Qt::UserRole).toInt(), 8);
        list.appendEntry({ "", "m", "yes", "yes", "/x", 3 }); // more than a blank line, but no network
        list.save_ACL();
        QCOMPARE(tw::test::readFile(path),
            QByteArray("existing;m;yes;yes;/z;1;\r\n10.0.0.0; 255. 0 . 0 . 0 ;yes;yes;/a;8;\r\n"
                       "192.168.1.0;m;no;yes;/b;24;\r\n172.16.0.0;m;yes;no;/c;12;\r\n1.1.1.1;m;;;;0;\r\n"));
        // Random bytes load as some rows more and are written back without a crash.
        QRandomGenerator rng(1234);
        QVERIFY(tw::test::writeFile(path, tw::test::junk(rng, 200000)));
        QVERIFY(loaded(list, path)->count() > 7);
        list.save_ACL();
        QVERIFY(QFile::exists(path));
    }

    void decisions()
    {
        const int failed = AccessDecision::Failed;
        const std::tuple<const char *, const char *, const char *, int, int> cases[] = {
            // name, rows, requester, read or write, result
            { "empty list blocks", "", "10.1.2.3", 1, -1 },
            { "/32 exact", "10.1.2.3;255.255.255.255;yes;yes;;32", "10.1.2.3", 2, 1 },
            { "/32 other host", "10.1.2.3;255.255.255.255;yes;yes;;32", "10.1.2.4", 1, -1 },
            { "outside network", "192.168.1.0;255.255.255.0;yes;yes;;24", "192.168.2.1", 1, -1 },
            { "odd prefix /20", "172.16.16.0;255.255.240.0;yes;yes;;20", "172.16.31.200", 1, 1 },
            { "host bits set", "192.168.1.77; 255. 255. 255. 0 ;yes;yes;;24", "192.168.1.5", 1, 1 },
            { "last refuses", "10.1.0.0;255.255.0.0;;;;16|10.0.0.0;255.0.0.0;no;;;8", "10.1.2.3", 1, -1 },
            { "last allows", "10.0.0.0;255.0.0.0;no;;;8|10.1.0.0;255.255.0.0;;;;16", "10.1.2.3", 1, 2 },
            { "later no match", "10.0.0.0;255.0.0.0;;;;8|11.0.0.0;255.0.0.0;no;no;;8", "10.1.2.3", 1, 1 },
            { "write refused", "10.0.0.0;255.0.0.0;yes;no;;8", "10.1.2.3", 2, -1 },
            { "read refused, write allowed", "10.0.0.0;255.0.0.0;no;yes;;8", "10.1.2.3", 2, 1 },
            { "capital No allows", "10.0.0.0;255.0.0.0;No;No;;8", "10.1.2.3", 1, 1 },
            { "empty rights allow", "10.0.0.0;255.0.0.0;;;;8", "10.1.2.3", 2, 1 },
            { "fields read as octets", "1e2.0.0.0;255abc.0.0.0;;;;8", "100.1.1.1", 1, 1 },
            { "empty octets read 0", "...;...;;;;0", "10.1.1.1", 1, 1 },
            { "short row fails", "10.0.0;255.0.0.0;;;;8", "10.1.1.1", 1, failed },
            { "blank row fails", "0.0.0.0;0.0.0.0;;;;0|", "10.1.1.1", 1, failed },
            { "short address fails", "0.0.0.0;0.0.0.0;;;;0", "10.1", 1, failed },
            { "octet masked into range", "40000.0.0.0;255.0.0.0;;;;8", "64.1.1.1", 1, 1 },
            { "masked octet overflows", "40000.0.0.0;65535.0.0.0;;;;8", "10.1.1.1", 1, failed },
            { "octet beyond 32 bits fails", "1e10.0.0.0;0.0.0.0;;;;0", "10.1.1.1", 1, failed },
        };
        // A decision is always recorded exactly once, as allowed or blocked, unless it failed.
        for (const auto &[name, rows, address, kind, want] : cases) {
            const int result = decide(rows, kind, address);
            const QString row
                = m_rows.size() == 1 ? m_rows[0].section(',', 3) : QString::number(m_rows.size());
            const QString wantRow = want == failed ? "0" : want > 0 ? "Allowed" : "Blocked";
            QCOMPARE(QString("%1: %2, %3").arg(name).arg(result).arg(row),
                QString("%1: %2, %3").arg(name).arg(want).arg(wantRow));
        }
    }

    // Requester 10.1.2.3, server 10.9.9.9: blocked rows show the pair the other way round.
    void transferRows()
    {
        const QString server = "image.bin,10.9.9.9,10.1.2.3,", requester = "image.bin,10.1.2.3,10.9.9.9,";
        const QStringList want { server + "Allowed", requester + "Allowed", requester + "Blocked",
            server + "Blocked" };
        for (int i = 0; i < 4; ++i) {
            QCOMPARE(
                decide(i < 2 ? "10.0.0.0;255.0.0.0;yes;yes;;8" : "10.0.0.0;255.0.0.0;no;no;;8", 1 + i % 2),
                i < 2 ? 1 : -1);
            QCOMPARE(m_rows, QStringList { want[i] });
        }
        // A veto on the deciding row refuses like the list would.
        int askedRow = 0;
        const auto veto = [&askedRow](int row) { return (askedRow = row) == 0; };
        QCOMPARE(decide("0.0.0.0;0.0.0.0;;;;0|10.1.0.0;255.255.0.0;;;;16", 1, "10.1.2.3", veto), -1);
        QCOMPARE(askedRow, 2);
        QCOMPARE(m_rows, QStringList { requester + "Blocked" });
    }

    // The editor: the Add Network dialog's octet boxes, and the window's list and file.
    void octetKeys();
    void windowAddsSavesAndRemoves();
};

// Keys typed as a keyboard does, each to whichever box has the focus at that
// moment, its release included ("\b" is backspace); then the four boxes, "*"
// marking the one with the focus.
void TestAccessList::octetKeys()
{
    const char *const rows[][2] = {
        { "300", "255.0*.0.0" }, // capped, and the third digit moves on
        { "07", "7*.0.0.0" }, // a leading zero is dropped
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

void TestAccessList::windowAddsSavesAndRemoves()
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
        QCOMPARE(combo->count(), 3); // index 2, the empty entry, is picked below: the file shows it
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

QTEST_MAIN(TestAccessList)
#include "tst_access_list.moc"
