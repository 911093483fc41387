#include "console/connection_history.h"
#include "console/console_session.h"
#include "console/console_window.h"
#include "console/terminal_widget.h"
#include "private_sshd.h"

#include <QRegularExpression>
#include <QTest>

// An SSH console in terminal mode against OpenSSH's sshd, started here on a
// loopback port in front of a plain /bin/sh (with no prompt of its own): a coloured prompt printed by the
// far end captions the console, and the far end's pty follows the window.
class TestConsoleTerminalSsh : public QObject
{
    Q_OBJECT
    PrivateSshd m_sshd;

    static void type(ConsoleWindow *window, const QByteArray &line)
    {
        for (const char c : line)
            QTest::keyClick(window->terminalBox(), c);
        QTest::keyClick(window->terminalBox(), Qt::Key_Return);
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_sshd.prepare(), "sshd or ssh-keygen is missing: install openssh-server");
        // sshd takes the first value of a setting: a plain shell with no prompt of its own.
        m_sshd.start("ForceCommand env PS1= /bin/sh\n");
    }

    void cleanupTestCase() { m_sshd.stop(); }

    void colouredPromptAndWindowSize()
    {
        ConsoleWindow window;
        window.resize(900, 560);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        connectRemembered(window.session(), { "SSH", "127.0.0.1", m_sshd.port, m_sshd.user });
        // SSH consoles are terminals unless the user said otherwise.
        QVERIFY(window.session()->terminalEmulation() && window.terminalBox()->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(window.session()->sshOpen(), 20000);

        type(&window, "printf '\\033[1;32mleaf1#\\033[0m '");
        QTRY_VERIFY2_WITH_TIMEOUT(
            window.windowTitle() == QLatin1String("leaf1#"), qPrintable(window.shownText()), 120000);
        QVERIFY(window.shownText().endsWith(QLatin1String("\nleaf1#")));

        const QRegularExpression size(QStringLiteral("\n(\\d+) (\\d+)\n"));
        const auto farEndSize = [&] {
            const auto match = size.globalMatch(window.shownText());
            QString last;
            for (auto it = match; it.hasNext();) {
                const auto m = it.next();
                last = m.captured(2) + QLatin1Char('x') + m.captured(1);
            }
            return last;
        };
        const auto viewSize = [&] {
            return QStringLiteral("%1x%2")
                .arg(window.terminalBox()->gridColumns())
                .arg(window.terminalBox()->gridRows());
        };
        type(&window, "stty size");
        QTRY_COMPARE_WITH_TIMEOUT(farEndSize(), viewSize(), 120000);
        const QString before = viewSize();
        window.resize(640, 420);
        QTRY_VERIFY(viewSize() != before);
        type(&window, "stty size");
        QTRY_COMPARE_WITH_TIMEOUT(farEndSize(), viewSize(), 120000);
    }
};

QTEST_MAIN(TestConsoleTerminalSsh)
#include "tst_console_terminal_ssh.moc"
