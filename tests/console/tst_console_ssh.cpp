#include "console/connection_history.h"
#include "console/console_session.h"
#include "console/console_window.h"
#include "console/modem_options.h"
#include "console/ssh_connection.h"
#include "console/terminal_view.h"
#include "console/terminal_widget.h"
#include "private_sshd.h"
#include "test_support.h"

#include <QAction>
#include <QComboBox>
#include <QDialog>
#include <QFile>
#include <QLineEdit>
#include <QMessageBox>
#include <QProcess>
#include <QPushButton>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

// SSH consoles through the console window against a private sshd
// (private_sshd.h): nobody's own ~/.ssh is read or written.
class TestConsoleSsh : public QObject
{
    Q_OBJECT
    PrivateSshd m_server;
    QPointer<ConsoleWindow> m_window;

    QString path(const QString &name) const { return m_server.path(name); }
    QString sshFile(const QString &name) const { return m_server.sshFile(name); }
    QString consoleText() const { return m_window->shownText(); }
    ConsoleSession &session() const { return *m_window->session(); }

    // The connection dialog opened from the menu, set to SSH.
    ModemOptions *sshDialog()
    {
        m_window->newConnectionAction()->trigger();
        auto *dialog = m_window->findChild<ModemOptions *>();
        if (dialog) {
            dialog->connectWith()->setCurrentIndex(dialog->connectWith()->findText(QStringLiteral("SSH")));
            Q_EMIT dialog->connectWith()->textActivated(QStringLiteral("SSH"));
        }
        return dialog;
    }

    void clickHostKeyAnswer(const QString &answer)
    {
        QMessageBox *box = nullptr;
        QTRY_VERIFY_WITH_TIMEOUT(
            (box = m_window->findChild<QMessageBox *>("SshHostKeyQuestion")), PrivateSshd::waitMs);
        QVERIFY(box->text().contains(QLatin1String("SHA256:")));
        for (QAbstractButton *button : box->buttons()) {
            if (button->text() == answer)
                return QTest::mouseClick(button, Qt::LeftButton);
        }
        QFAIL(qPrintable(QStringLiteral("no button ") + answer));
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_server.prepare(), "sshd or ssh-keygen is missing: install openssh-server");
        QVERIFY(PrivateSshd::keygen(path("other_host_key")));
    }

    void cleanupTestCase() { m_server.stop(); }

    void init()
    {
        if (m_server.process.state() == QProcess::NotRunning)
            m_server.start({}, "Host 127.0.0.1\n    HashKnownHosts yes\n");
        SshConnection::setInteractive(true);
        m_window = new ConsoleWindow;
        m_window->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_window));
    }

    void cleanup() { delete m_window; }

    void unknownKeyAskedThenSavedAndSessionWorks()
    {
        // A file kept by hand: its line and its mode stay, the new entry is hashed.
        tw::test::writeFile(sshFile("known_hosts"), "# kept by hand");
        QFile::setPermissions(
            sshFile("known_hosts"), QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup);

        // Through the connection dialog, as a user does.
        ModemOptions *dialog = sshDialog();
        QVERIFY(dialog);
        for (int i = 0; i < 4; ++i)
            dialog->octetBox(i)->setText(QString::number(i == 0 ? 127 : i == 3));
        dialog->portBox()->setText(QString::number(m_server.port));
        dialog->userBox()->setText(m_server.user);
        QTest::mouseClick(dialog->okButton(), Qt::LeftButton);
        QCOMPARE(ConnectionHistory::target(0),
            (ConnectTarget { "SSH", "127.0.0.1", m_server.port, m_server.user }));
        QCOMPARE(session().connectionKind(), QStringLiteral("TCP/IP"));
        clickHostKeyAnswer(QStringLiteral("Accept and save"));
        QTRY_VERIFY_WITH_TIMEOUT(consoleText().endsWith(QLatin1String("R1#")), PrivateSshd::waitMs);
        QVERIFY(tw::test::readFile(sshFile("known_hosts")).startsWith("# kept by hand\n|1|"));
        QVERIFY(PrivateSshd::run(QStringLiteral("ssh-keygen"),
            { "-F", QStringLiteral("[127.0.0.1]:%1").arg(m_server.port), "-f", sshFile("known_hosts") }));
        QCOMPARE(QFile::permissions(sshFile("known_hosts")) & ~(QFile::ReadUser | QFile::WriteUser),
            QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup);

        // Syslog is routed to a console by this address, whatever carries the session.
        QCOMPARE(session().deviceAddress(), QStringLiteral("127.0.0.1"));

        // The break request reaches sshd; the two Telnet bytes do not go down the channel.
        m_window->sendBreakAction()->trigger();
        QTRY_VERIFY_WITH_TIMEOUT(m_server.log().contains("request break"), PrivateSshd::waitMs);

        m_window->disconnectAction()->trigger();
        QVERIFY(!session().sshOpen() && consoleText().endsWith(QLatin1String("Disconected\n")));
    }

    void configUserWinsUnlessTypedThenServerKilled()
    {
        // The box shows the remembered user; a typed one is refused, but with
        // none typed fake-r1's User in ~/.ssh/config wins over the remembered
        // one (no account "remembered" could log in).
        session().setTimerIntervals(0, 50);
        for (const QString typed : { "typed", "" }) {
            tw::test::settingsStore().setValue(
                QStringLiteral("Settings/SshUser"), QStringLiteral("remembered"));
            ModemOptions *dialog = sshDialog();
            QVERIFY(dialog);
            dialog->hostNameBox()->setText(QStringLiteral("fake-r1"));
            QCOMPARE(dialog->userBox()->text(), QStringLiteral("remembered"));
            dialog->userBox()->selectAll();
            QTest::keyClicks(dialog->userBox(), typed);
            QTest::mouseClick(dialog->okButton(), Qt::LeftButton);
            delete dialog;
            if (!typed.isEmpty())
                QTRY_COMPARE_WITH_TIMEOUT(session().connectionKind(), QString(), PrivateSshd::waitMs);
        }
        QVERIFY2(consoleText().contains(QLatin1String("SSH Err: authentication refused for typed@fake-r1")),
            qPrintable(consoleText()));
        QTRY_VERIFY_WITH_TIMEOUT(m_server.log().contains("Invalid user typed "), PrivateSshd::waitMs);

        // The key saved by the previous case: no question this time.
        QTRY_VERIFY_WITH_TIMEOUT(consoleText().endsWith(QLatin1String("R1#")), PrivateSshd::waitMs);
        QVERIFY(!m_window->findChild<QMessageBox *>("SshHostKeyQuestion"));
        QCOMPARE(session().deviceAddress(), QStringLiteral("fake-r1"));

        // The device dies mid-session: every sshd process of ours goes at once.
        QVERIFY(m_server.signalSessions(SIGKILL));
        m_server.stop();
        QTRY_COMPARE_WITH_TIMEOUT(session().connectionKind(), QString(), PrivateSshd::waitMs);
        // Straight after the prompt (on a line of its own in terminal mode, SSH's default).
        QVERIFY2(
            consoleText().contains(QRegularExpression(QStringLiteral("R1#\\n?Connection to fake-r1 lost: "))),
            qPrintable(consoleText()));
        QVERIFY(consoleText().endsWith(QLatin1String("\nPress Enter to reconnect\n")));
    }

    // Terminal mode, SSH's default, against a plain shell with no prompt of its
    // own: a coloured prompt printed by the far end captions the console, and the
    // far end's pty follows the window's size.
    void terminalPromptAndWindowSize()
    {
        m_server.start("ForceCommand env PS1= /bin/sh\n"); // sshd takes the first value of a setting
        m_window->resize(900, 560);
        connectRemembered(m_window->session(), { "SSH", "127.0.0.1", m_server.port, m_server.user });
        QVERIFY(session().terminalEmulation() && m_window->terminalBox()->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(session().sshOpen(), PrivateSshd::waitMs);
        const auto type = [this](const QByteArray &line) {
            for (const char c : line)
                QTest::keyClick(m_window->terminalBox(), c);
            QTest::keyClick(m_window->terminalBox(), Qt::Key_Return);
        };
        type("printf '\\033[1;32mleaf1#\\033[0m '");
        QTRY_VERIFY2_WITH_TIMEOUT(m_window->windowTitle() == QLatin1String("leaf1#"),
            qPrintable(consoleText()), PrivateSshd::waitMs);
        QVERIFY(consoleText().endsWith(QLatin1String("\nleaf1#")));

        // The last "ROWS COLUMNS" that stty printed, as COLUMNSxROWS.
        const auto farEndSize = [this] {
            QString last;
            for (auto it = QRegularExpression(QStringLiteral("\n(\\d+) (\\d+)\n")).globalMatch(consoleText());
                 it.hasNext();) {
                const QRegularExpressionMatch m = it.next();
                last = m.captured(2) + QLatin1Char('x') + m.captured(1);
            }
            return last;
        };
        const auto viewSize = [this] {
            return QStringLiteral("%1x%2")
                .arg(m_window->terminalBox()->gridColumns())
                .arg(m_window->terminalBox()->gridRows());
        };
        type("stty size");
        QTRY_COMPARE_WITH_TIMEOUT(farEndSize(), viewSize(), PrivateSshd::waitMs);
        const QString before = viewSize();
        m_window->resize(640, 420);
        QTRY_VERIFY(viewSize() != before);
        type("stty size");
        QTRY_COMPARE_WITH_TIMEOUT(farEndSize(), viewSize(), PrivateSshd::waitMs);
        m_server.stop(); // the next case gets the device back
    }

    void connectOptionOpensSsh()
    {
        // The real program, headless: the saved key and the key file suffice.
        QVERIFY(m_server.trust(m_server.port));
        QTemporaryDir settings;
        QProcess program;
        m_server.process.readAll();
        tw::test::startHeadless(program, settings.path(),
            { "--connect", QStringLiteral("ssh://%1@127.0.0.1:%2").arg(m_server.user).arg(m_server.port) },
            true);
        QVERIFY2(program.waitForStarted(), qPrintable(program.errorString()));
        // Only a public key can log in to this sshd, and only then is a terminal asked for.
        QByteArray log;
        QTRY_VERIFY2_WITH_TIMEOUT((log += m_server.process.readAll()).contains("session_pty_req"),
            log.right(2000).constData(), PrivateSshd::waitMs);
        program.terminate();
        QVERIFY(program.waitForFinished(10000));
    }

    void refusals()
    {
        const QString knownHosts = sshFile("known_hosts");
        const QByteArray entry = "[127.0.0.1]:" + QByteArray::number(m_server.port) + " ssh-ed25519 ";
        const QByteArray key = tw::test::readFile(path("host_key.pub")).split(' ').value(1);
        const QByteArray otherKey = tw::test::readFile(path("other_host_key.pub")).split(' ').value(1);
        const QString file = QRegularExpression::escape(knownHosts);
        // known_hosts (none: nobody to ask either, as with --headless), host, what the console says.
        const QList<std::tuple<QByteArray, QString, QString>> cases = {
            { "# kept by hand\n" + entry + otherKey + '\n', "127.0.0.1",
                "SSH Err: WARNING: the host key of 127.0.0.1 has changed .* line 2 of " + file },
            // Revoked even beside an entry that names it; a certificate authority line is no entry.
            { "@cert-authority * ssh-ed25519 " + otherKey + "\n@revoked * ssh-ed25519 " + key + '\n' + entry
                    + key + '\n',
                "127.0.0.1", "is revoked \\(@revoked at line 2 of " + file + "\\); refused" },
            { {}, "127.0.0.1", "is not in " },
            // A name that does not resolve: looked up without blocking, then refused.
            { {}, "no..device", "SSH Err: cannot find no\\.\\.device" },
        };
        for (const auto &[known, host, said] : cases) {
            QFile::remove(knownHosts);
            QVERIFY(known.isNull() || tw::test::writeFile(knownHosts, known));
            SshConnection::setInteractive(!known.isNull());
            m_window->consoleBox()->clear();
            session().ConnectSSH(host, m_server.port, m_server.user);
            QTRY_COMPARE_WITH_TIMEOUT(session().connectionKind(), QString(), PrivateSshd::waitMs);
            QVERIFY2(
                consoleText().contains(QRegularExpression("(?s)" + said)) && consoleText().endsWith("\n>\n"),
                qPrintable(consoleText()));
            QVERIFY(!m_window->findChild<QMessageBox *>("SshHostKeyQuestion"));
            QVERIFY(!known.isNull() || !QFile::exists(knownHosts)); // refused, so nothing saved
        }

        // A key the server does not know: authentication refused, console idle.
        SshConnection::setInteractive(true);
        QFile::remove(path("authorized_keys"));
        QVERIFY(PrivateSshd::keygen(path("stranger")));
        QFile::copy(path("stranger.pub"), path("authorized_keys"));
        m_window->consoleBox()->clear();
        session().ConnectSSH(QStringLiteral("127.0.0.1"), m_server.port, m_server.user);
        clickHostKeyAnswer(QStringLiteral("Accept once"));
        QTRY_COMPARE_WITH_TIMEOUT(session().connectionKind(), QString(), PrivateSshd::waitMs);
        QVERIFY2(
            consoleText().contains(
                QStringLiteral("SSH Err: authentication refused for %1@127.0.0.1\n>\n").arg(m_server.user)),
            qPrintable(consoleText()));
        QVERIFY(!QFile::exists(sshFile("known_hosts"))); // accepted once, not saved
    }

    // Last: it leaves only the encrypted key authorised.
    void passphraseAskedForAnEncryptedKey()
    {
        QVERIFY(PrivateSshd::keygen(sshFile("id_ecdsa"), "ecdsa", "open sesame"));
        tw::test::writeFile(path("authorized_keys"), tw::test::readFile(sshFile("id_ecdsa.pub")));
        QVERIFY(m_server.trust(m_server.port));
        session().ConnectSSH(QStringLiteral("127.0.0.1"), m_server.port, m_server.user);
        QDialog *prompt = nullptr;
        QTRY_VERIFY_WITH_TIMEOUT(
            (prompt = m_window->findChild<QDialog *>("SshSecretsDialog")), PrivateSshd::waitMs);
        QLineEdit *edit = prompt->findChild<QLineEdit *>();
        QCOMPARE(edit->echoMode(), QLineEdit::Password);
        QTest::keyClicks(edit, "open sesame");
        prompt->accept();
        QTRY_VERIFY_WITH_TIMEOUT(consoleText().endsWith(QLatin1String("R1#")), PrivateSshd::waitMs);
    }
};

QTEST_MAIN(TestConsoleSsh)
#include "tst_console_ssh.moc"
