#include "console/console_session.h"
#include "console/console_terminal.h"
#include "console/terminal_screen.h"
#include "console/terminal_text_reader.h"
#include "test_support.h"

#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <cstring>
#include <memory>

// The terminal model against tmux, a terminal emulator nobody here wrote: the
// same bytes go to TerminalScreen and, through `cat` on a raw pty, to a
// detached 80x24 tmux pane, and every row's characters and the cursor must
// agree. A title sequence at the end of each stream tells when tmux has
// read all of it.
class TestConsoleTerminal : public QObject
{
    Q_OBJECT
    QTemporaryDir m_dir;
    int m_run = 0;

    QStringList tmux(const QStringList &arguments, bool *ok = nullptr)
    {
        QProcess process;
        // A server of its own for every stream: one being killed cannot take the next.
        process.start(QStringLiteral("tmux"),
            QStringList { "-L", QStringLiteral("oracle%1").arg(m_run), "-f", "/dev/null" } + arguments);
        const bool finished = process.waitForFinished(30000) && process.exitCode() == 0;
        if (ok)
            *ok = finished;
        return QString::fromUtf8(process.readAllStandardOutput()).split(QLatin1Char('\n'));
    }

    // tmux's view of stream: the 24 rows (trailing blanks removed) and the cursor.
    void tmuxScreen(const QByteArray &stream, QStringList *rows, QPoint *cursor)
    {
        const QString marker = QStringLiteral("tw-done-%1").arg(++m_run);
        const QString file = m_dir.filePath(QStringLiteral("stream%1").arg(m_run));
        QFile out(file);
        QVERIFY(out.open(QIODevice::WriteOnly));
        out.write(stream + "\x1b]2;" + marker.toLatin1() + "\x1b\\");
        out.close();
        bool ok = false;
        tmux({ "new", "-d", "-x", "80", "-y", "24",
                 QStringLiteral("stty -opost; cat '%1'; exec sleep 100000").arg(file) },
            &ok);
        QVERIFY2(ok, "tmux cannot start a session");
        QTRY_COMPARE_WITH_TIMEOUT(tmux({ "display", "-p", "#{pane_title}" }).value(0), marker, 30000);
        *rows = tmux({ "capture-pane", "-p" }).mid(0, 24);
        const QStringList at = tmux({ "display", "-p", "#{cursor_x},#{cursor_y}" }).value(0).split(',');
        *cursor = QPoint(at.value(0).toInt(), at.value(1).toInt());
        tmux({ "kill-server" });
        for (QString &row : *rows) {
            while (row.endsWith(QLatin1Char(' ')))
                row.chop(1);
        }
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY2(!QStandardPaths::findExecutable(QStringLiteral("tmux")).isEmpty(),
            "tmux is missing: install tmux");
        // Our own tmux server, in our own folder.
        qputenv("TMUX_TMPDIR", QFile::encodeName(m_dir.path()));
        qunsetenv("TMUX");
    }

    void repeatOnlyWhatHasWidth()
    {
        // libvterm 0.1.4 repeats the last glyph (REP, CSI b) until the cursor
        // has moved; a glyph of no width never moves it, and each REP after
        // an accent below would spin for ever, as would a REP after a reset.
        TerminalScreen screen;
        screen.feed("ab\x1b[3b|");
        QCOMPARE(screen.rowText(0).trimmed(), QStringLiteral("abbbb|"));
        // A C1 control sent as UTF-8 is no glyph at all (libvterm made it one of width -1).
        screen.feed("\r\nx\xc2\x89\x1b[3b1");
        QCOMPARE(screen.rowText(1).trimmed(), QStringLiteral("xxxx1"));
        screen.feed("\r\n\x1b[5C\xcc\x81\x1b["); // an accent with nothing to join
        screen.feed("9b3"); // and a REP split between two blocks
        QVERIFY(screen.rowText(2).contains(QLatin1Char('3')));
        screen.feed("\x1b\x05c"); // no reset: only ESC right before c is one
        QCOMPARE(screen.rowText(0).trimmed(), QStringLiteral("abbbb|"));
        screen.feed("\x1b");
        screen.feed("c\x1b[9b4"); // after a reset whose ESC c is split between two blocks
        QCOMPARE(screen.rowText(0).trimmed(), QStringLiteral("4"));
    }

    void sameScreenAsTmux_data()
    {
        QTest::addColumn<QByteArray>("stream");

        QByteArray ls;
        const char *names[] = { "bin", "boot.ini", "config.text", "flash", "script.sh", "vlan.dat" };
        const char *colours[] = { "01;34", "00", "00", "01;36", "01;32", "38;5;208" };
        for (int i = 0; i < 40; ++i) {
            ls += "drwxr-xr-x 2 admin admin 4096 Nov 24 22:" + QByteArray::number(10 + i) + " \x1b[0m\x1b["
                + colours[i % 6] + "m" + names[i % 6] + QByteArray::number(i) + "\x1b[0m\r\n";
        }
        ls += "\x1b[48;2;10;60;200m truecolour \x1b[7m reversed \x1b[27;4m underlined\x1b[m\r\n";
        QTest::newRow("coloured listing") << ls;

        QByteArray region = "\x1b[2J\x1b[H";
        for (int i = 1; i <= 24; ++i)
            region += "row " + QByteArray::number(i) + (i < 24 ? "\r\n" : "");
        region += "\x1b[5;15r\x1b[15;1H";
        for (int i = 0; i < 7; ++i)
            region += "\nscrolled " + QByteArray::number(i) + "\r";
        region += "\x1b[5;1H\x1bM\x1bMreverse index\x1b[8;1H\x1b[2L\x1b[12;1H\x1b[3M\x1b[r\x1b[24;1Hbottom";
        region += "\x1b[10;10Hmid\x1b[1K\x1b[11;5H\x1b[0K\x1b[3;3H\x1b[4@ins\x1b[2P";
        QTest::newRow("scroll region") << region;

        QTest::newRow("alternate screen (vi)")
            << tw::test::readFile(QStringLiteral(TW_SOURCE_DIR "/tests/console/data/vi_session.bin"));

        QByteArray utf8
            = "\xe2\x94\x8c\xe2\x94\x80\xe2\x94\x80\xe2\x94\x90\r\n"
              "\xe2\x94\x82\xe6\x97\xa5\xe6\x9c\xac\xe2\x94\x82 ok\r\n"
              "\xe2\x94\x94\xe2\x94\x80\xe2\x94\x80\xe2\x94\x98\r\n"
              "desc: caf\xc3\xa9 M\xc3\xbcnchen \xe4\xb8\xad\xe6\x96\x87 \xed\x95\x9c\xea\xb8\x80\r\n";
        utf8 += QByteArray(78, '-') + "\xe6\x97\xa5\xe6\x9c\xac" + "wrapped\r\n";
        QTest::newRow("UTF-8 box drawing and wide characters") << utf8;

        QTest::newRow("coloured prompt")
            << QByteArray("Last login: Tue Nov 24\r\n\x1b]0;admin@leaf1: ~\x07\x1b[01;32madmin@leaf1\x1b[00m:"
                          "\x1b[01;34m~\x1b[00m$ ls\r\n\x1b[1;32mleaf1#\x1b[0m ");
    }

    void sameScreenAsTmux()
    {
        QFETCH(QByteArray, stream);
        QVERIFY(!stream.isEmpty());
        QStringList expected;
        QPoint cursor;
        tmuxScreen(stream, &expected, &cursor);
        if (QTest::currentTestFailed())
            return;

        TerminalScreen screen(24, 80);
        // In pieces of every size, as the network delivers them.
        for (qsizetype at = 0, piece = 1; at < stream.size(); at += piece, piece = piece % 97 + 1)
            screen.feed(stream.mid(at, piece));
        screen.feed("\x1b]2;done\x1b\\");
        for (int row = 0; row < 24; ++row)
            QCOMPARE(screen.rowText(row), expected.value(row));
        QCOMPARE(QPoint(screen.cursorColumn(), screen.cursorRow()), cursor);
    }

    void scrollbackKeepsItsLimit()
    {
        TerminalScreen screen(24, 80, 100);
        for (int i = 0; i < 1000; ++i)
            screen.feed("line " + QByteArray::number(i) + "\r\n");
        QCOMPARE(screen.scrollbackCount(), 100);
        QCOMPARE(screen.rowText(-100), QStringLiteral("line 877"));
        QCOMPARE(screen.rowText(-1), QStringLiteral("line 976"));
        QCOMPARE(screen.rowText(0), QStringLiteral("line 977"));
        // The alternate screen leaves the scrollback alone and gives the main screen back.
        screen.feed("\x1b[?1049h\x1b[Hfull screen\r\n\r\n\r\n");
        QCOMPARE(screen.scrollbackCount(), 100);
        screen.feed("\x1b[?1049l");
        QCOMPARE(screen.rowText(0), QStringLiteral("line 977"));
        // A taller screen takes lines back from the scrollback.
        screen.resize(30, 80);
        QCOMPARE(screen.scrollbackCount(), 94);
        QCOMPARE(screen.rowText(0), QStringLiteral("line 971"));
        QCOMPARE(TerminalScreen().scrollbackLimit(), 10000);
    }

    void widthChangeReflowsWrappedLines()
    {
        // A line the terminal wrapped is re-cut at the new width; a line the
        // device ended is not joined to the next; the cursor keeps its place.
        TerminalScreen screen(5, 40);
        const QByteArray digits = QByteArray("0123456789").repeated(5);
        screen.feed(digits + "\r\n\x1b[32mR1#\x1b[0m ");
        QVERIFY(screen.wrapped(0) && !screen.wrapped(1));
        screen.resize(5, 80);
        QCOMPARE(screen.rowText(0), QString::fromLatin1(digits));
        QCOMPARE(screen.rowText(1), QStringLiteral("R1#"));
        QCOMPARE(QPoint(screen.cursorColumn(), screen.cursorRow()), QPoint(4, 1));
        screen.resize(5, 20);
        QCOMPARE(screen.text(0, 3), QString::fromLatin1(digits) + QStringLiteral("\nR1#"));
        QCOMPARE(screen.rowText(1), QString::fromLatin1(digits.mid(20, 20)));
        screen.feed("show clock");
        QCOMPARE(screen.rowText(screen.cursorRow()), QStringLiteral("R1# show clock"));
        QCOMPARE(screen.cell(3, 0).fg, screen.cell(3, 1).fg); // colours move with their characters
        QVERIFY(screen.cell(3, 0).fg != screen.defaultForeground());
    }

    void keysAndPaste()
    {
        TerminalScreen screen;
        const auto keyed = [&](int key, Qt::KeyboardModifiers mods, const QString &text = QString()) {
            screen.key(key, mods, text);
            return screen.takeOutput();
        };
        QCOMPARE(keyed(Qt::Key_F5, Qt::NoModifier), QByteArray("\x1b[15~"));
        QCOMPARE(keyed(Qt::Key_Delete, Qt::NoModifier), QByteArray("\x1b[3~"));
        QCOMPARE(keyed(Qt::Key_PageUp, Qt::NoModifier), QByteArray("\x1b[5~"));
        QCOMPARE(keyed(Qt::Key_M, Qt::ControlModifier), QByteArray("\r"));
        QCOMPARE(keyed(Qt::Key_E, Qt::NoModifier, QStringLiteral("\u00e9")), QByteArray("\xc3\xa9"));
        // Full-screen programs switch the cursor keys to application mode.
        screen.feed("\x1b[?1h");
        QCOMPARE(keyed(Qt::Key_Up, Qt::NoModifier), QByteArray("\x1bOA"));

        // A pasted line end, LF or CR LF, goes as one Enter.
        screen.paste(QStringLiteral("conf t\nhostname R2\r\n"));
        QCOMPARE(screen.takeOutput(), QByteArray("conf t\rhostname R2\r"));
        // The device asks where the cursor is; the answer goes back to it.
        screen.feed("\x1b[3;7H\x1b[6n");
        QCOMPARE(screen.takeOutput(), QByteArray("\x1b[3;7R"));
    }

    void controlStringEndsInsideWhatWasSent()
    {
        // libvterm 0.1.4 copies from past the end of a write into a string
        // whose ESC \ is split by controls or by the end of a block. Each
        // block here sits alone in a heap buffer of its exact size, so a
        // sanitizer build sees any read past it; every build sees the title.
        TerminalScreen screen;
        TerminalTextReader reader;
        QString text;
        const auto send = [&](QByteArrayView bytes) {
            const std::unique_ptr<char[]> exact(new char[size_t(bytes.size())]);
            std::memcpy(exact.get(), bytes.data(), size_t(bytes.size()));
            const QByteArray block = QByteArray::fromRawData(exact.get(), bytes.size());
            screen.feed(block);
            text += reader.decode(block);
        };
        // The C3 ends the block unfinished: it waits for its A9, after the string.
        send("\x1b]0;R1\x05\x1b\x05\x07\\\xc3");
        QCOMPARE(screen.title(), QStringLiteral("R1"));
        send("\xa9\x1b]2;R2\x05\x1b");
        send("\\o\x1b[31mX\bk\r\n");
        QCOMPARE(screen.title(), QStringLiteral("R2"));
        QCOMPARE(screen.rowText(0), QStringLiteral("\u00e9ok"));
        // The decoded text (for a text log and the flash listing) keeps the backspace and line end.
        QCOMPARE(text, QStringLiteral("\u00e9oX\bk\r\n"));
    }

    void captionAndLogLines()
    {
        // Caption and "*" lines are read from the screen: colours gone, a
        // prompt on the cursor's row, a "*" line once when the device ends it
        // (wrapped rows joined), none from the alternate screen.
        ConsoleTerminal terminal;
        terminal.resize(24, 40);
        auto result = terminal.feed(
            "\x1b[31m*Nov 24 22:10: %LINK-3-UPDOWN: Interface \xe2\x86\x92 down\x1b[0m\r", false);
        QCOMPARE(result.ops,
            (QList<TerminalOp> { { TerminalOp::LogLine,
                QStringLiteral("*Nov 24 22:10: %LINK-3-UPDOWN: Interface \u2192 down\r\n") } }));
        result = terminal.feed("\nR1(config-\x1b[1mif\x1b[0m)#", false);
        QCOMPARE(result.ops, (QList<TerminalOp> { { TerminalOp::Caption, QStringLiteral("R1") } }));
        result = terminal.feed("\x1b[?1049h*drawn by a full-screen program\r\n\x1b[?1049l", false);
        QVERIFY(result.ops.isEmpty() || result.ops.first().kind != TerminalOp::LogLine);
    }

    void sessionInTerminalMode()
    {
        // The console's own path: the screen instead of classic appends, answers to the device.
        ConsoleSession session;
        session.setTerminalEmulation(true);
        QSignalSpy classic(&session, &ConsoleSession::terminalAppend);
        QSignalSpy answers(session.terminal(), &ConsoleTerminal::sendRequested);
        session.processReceived("\x1b[1;32mleaf1#\x1b[0m \x1b[5n");
        QCOMPARE(classic.count(), 0);
        QCOMPARE(answers.value(0).value(0).toByteArray(), QByteArray("\x1b[0n"));
        session.appendTerminal(QStringLiteral("Connection timed out\r"), ConsoleSession::red);
        session.appendTerminal(QStringLiteral(">\r"), ConsoleSession::black);
        QCOMPARE(session.terminal()->screen().allText(), QStringLiteral("leaf1#\nConnection timed out\n>\n"));
    }
};

QTEST_GUILESS_MAIN(TestConsoleTerminal)
#include "tst_console_terminal.moc"
