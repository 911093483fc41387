#include "logrecv/log_options.h"
#include "logrecv/log_page.h"
#include "logrecv/log_routes.h"
#include "util/mc_popup_menu.h"
#include "util/message_box.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QLabel>
#include <QMenu>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTest>

#include <memory>

// One console's log controls, with the objectNames the console window gives them.
struct ConsoleLogWidgets
{
    QWidget window;
    QPlainTextEdit *logbox = new QPlainTextEdit(&window);
    QCheckBox *check1 = new QCheckBox(QStringLiteral("Log To File"), &window);
    QPushButton *command7 = new QPushButton(QStringLiteral("Choose Path"), &window);
    QLabel *label16 = new QLabel(QStringLiteral("Path to file"), &window);
    LogPage *page = nullptr;

    explicit ConsoleLogWidgets(LogOptions *options)
    {
        logbox->setObjectName(QStringLiteral("logbox"));
        check1->setObjectName(QStringLiteral("Check1"));
        command7->setObjectName(QStringLiteral("Command7"));
        label16->setObjectName(QStringLiteral("Label16"));
        page = tw::attachLogPage(logbox, check1, command7, label16, options);
    }
    void select(const QString &text)
    {
        QTextCursor cursor = logbox->document()->find(text);
        logbox->setTextCursor(cursor);
    }
};

class TestLogPage : public QObject
{
    Q_OBJECT
private:
    LogOptions m_options;
    QStringList m_messages;
    QStringList m_pickerTitles;
    QString m_pickerAnswer;

private Q_SLOTS:
    void init()
    {
        m_messages.clear();
        tw::setMessageBoxHook([this](const QString &text, QMessageBox::Icon) { m_messages << text; });
        m_pickerTitles.clear();
        LogPage::setFolderPicker([this](QWidget *, const QString &title, const QString &) {
            m_pickerTitles << title;
            return m_pickerAnswer;
        });
        m_options.setLogToFile(false);
        m_options.setFolder(QString());
    }
    void cleanup()
    {
        tw::setMessageBoxHook({});
        mcPopupMenu::setExecHook({});
    }

    // The switch and the folder are program-wide: a click in one console
    // shows in every console, and a cancelled picker changes nothing.
    void sharedSwitchAndFolder()
    {
        ConsoleLogWidgets first(&m_options);
        ConsoleLogWidgets second(&m_options);
        QCOMPARE(first.label16->text(), LogOptions::defaultFolder());
        QVERIFY(!first.check1->isChecked());

        first.window.show();
        QTest::mouseClick(first.check1, Qt::LeftButton);
        QVERIFY(m_options.logToFile());
        QVERIFY(second.check1->isChecked());

        m_pickerAnswer = QStringLiteral("/var/log/devices");
        QTest::mouseClick(second.command7, Qt::LeftButton);
        QCOMPARE(m_pickerTitles, QStringList { QStringLiteral("Choose folder to store log files") });
        QCOMPARE(m_options.folder(), m_pickerAnswer);
        QCOMPARE(first.label16->text(), m_pickerAnswer);

        m_pickerAnswer.clear();
        QTest::mouseClick(first.command7, Qt::LeftButton);
        QCOMPARE(m_options.folder(), QStringLiteral("/var/log/devices"));

        // --log-dir: the folder for the run, switched on.
        m_options.setLogToFile(false);
        m_options.useLogDir(QStringLiteral("/tmp/run-logs"));
        QVERIFY(first.check1->isChecked() && second.check1->isChecked());
        QCOMPARE(second.label16->text(), QStringLiteral("/tmp/run-logs"));
    }

    // Each delivered datagram is one line: CR LF ends it without leaving a
    // stray CR in the view.
    void appendedLines()
    {
        ConsoleLogWidgets console(&m_options);
        console.logbox->setPlainText(QString());
        tw::appendToLogbox(console.logbox, QStringLiteral("<189>one"));
        tw::appendToLogbox(console.logbox, QStringLiteral("two"));
        QCOMPARE(console.logbox->toPlainText(), QStringLiteral("<189>one\ntwo\n"));
        QCOMPARE(console.logbox->document()->blockCount(), 3);
    }

    // The popup offers its three entries through the shared popup menu, and
    // choosing "Copy" copies the selection.
    void popupCopy()
    {
        ConsoleLogWidgets console(&m_options);
        console.window.show();
        tw::appendToLogbox(console.logbox, QStringLiteral("%SYS-5-RESTART: System restarted"));
        console.select(QStringLiteral("System restarted"));
        QStringList offered;
        mcPopupMenu::setExecHook([&offered](QMenu *menu, const QPoint &) -> QAction * {
            for (QAction *action : menu->actions())
                offered << action->text();
            return menu->actions().value(0);
        });
        console.page->showPopup(QPoint(10, 10));
        QCOMPARE(offered, (QStringList { "Copy", "Find", "IP>Hostname" }));
        QCOMPARE(QApplication::clipboard()->text(), QStringLiteral("System restarted"));
    }

    void find_data()
    {
        QTest::addColumn<QString>("what");
        QTest::addColumn<int>("startAt");
        QTest::addColumn<int>("foundAt"); // -1: not found
        QTest::newRow("forward from caret") << "link" << 0 << 1;
        QTest::newRow("next after caret") << "link" << 7 << 29;
        QTest::newRow("wraps to top") << "link" << 40 << 1;
        QTest::newRow("ignores case") << "LINK" << 0 << 1;
        QTest::newRow("missing") << "bgp" << 0 << -1;
    }
    void find()
    {
        QFETCH(QString, what);
        QFETCH(int, startAt);
        QFETCH(int, foundAt);
        ConsoleLogWidgets console(&m_options);
        console.logbox->setPlainText(QStringLiteral("%LINK-3-UPDOWN up\n%LINEPROTO link down\n"));
        QTextCursor caret = console.logbox->textCursor();
        caret.setPosition(startAt);
        console.logbox->setTextCursor(caret);
        LogPage::setFindPrompt([what](QWidget *, const QString &) { return what; });
        console.page->runPopupItem(LogPage::PopupFind);
        if (foundAt < 0) {
            QCOMPARE(m_messages.size(), 1);
            QVERIFY(m_messages.constFirst().contains(what));
        } else {
            QVERIFY(m_messages.isEmpty());
            QCOMPARE(console.logbox->textCursor().selectionStart(), foundAt);
            QCOMPARE(console.logbox->textCursor().selectedText().toLower(), what.toLower());
        }
    }

    // "IP>Hostname" puts the name in place of the selected address; when no
    // name is found the resolver's message is shown and the text stays.
    void hostName_data()
    {
        QTest::addColumn<QString>("selected");
        QTest::addColumn<QString>("after");
        QTest::addColumn<QString>("message");
        QTest::newRow("known") << "127.0.0.1"
                               << "from localhost: up"
                               << "";
        QTest::newRow("not an address") << "from"
                                        << "from 127.0.0.1: up"
                                        << "Invalid IP address";
    }
    void hostName()
    {
        QFETCH(QString, selected);
        QFETCH(QString, after);
        QFETCH(QString, message);
        ConsoleLogWidgets console(&m_options);
        console.logbox->setPlainText(QStringLiteral("from 127.0.0.1: up"));
        console.select(selected);
        console.page->runPopupItem(LogPage::PopupHostName);
        QCOMPARE(console.logbox->toPlainText(), after);
        QCOMPARE(m_messages.join(QString()), message);
    }
};

QTEST_MAIN(TestLogPage)
#include "tst_log_page.moc"
