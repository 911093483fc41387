#include "capture/config_window.h"
#include "capture/rich_text_document.h"
#include "capture/rtf_reader.h"
#include "capture/rtf_writer.h"
#include "test_support.h"
#include "tftp/tftp_test_peer.h"
#include "util/message_box.h"

#include <QtNetwork>
#include <QtTest>
#include <QtWidgets>

constexpr quint32 red = 0xFF0000;
constexpr quint32 blue = 0x0000FF;

static QByteArray fixture(const char *name)
{
    return tw::test::readFile(QStringLiteral(TW_SOURCE_DIR "/tests/capture/data/") + QLatin1String(name));
}

const auto rich = [](std::initializer_list<RichRun> runs) { return RichText { runs }; };

// The RTF behind "Load Config" and "Save Config", the "Config" window, and real TFTP uploads into it.
class TestCapture : public QObject
{
    Q_OBJECT
    QTemporaryDir m_dir;
    QStringList m_messages;

    RichText contents(const ConfigWindow &w) { return tw::richTextFromDocument(*w.configBox()->document()); }

    // tftp-hpa's or atftp's put of `bytes`, run while the event loop keeps serving.
    void put(const QString &program, const QByteArray &bytes, const QString &remote, quint16 port)
    {
        const QString local = m_dir.filePath(remote + QStringLiteral(".local"));
        QVERIFY(tw::test::writeFile(local, bytes));
        int exitCode = -1;
        const QByteArray said = tftptest::run(program,
            program == QLatin1String("atftp") ? "-p|-r|" + remote + "|-l|%L|127.0.0.1|%P"
                                              : "-m|binary|127.0.0.1|%P|-c|put|%L|" + remote,
            port, local, &exitCode);
        QVERIFY2(exitCode == 0, said.constData());
    }

private Q_SLOTS:
    void initTestCase()
    {
        QDir::setCurrent(m_dir.path()); // where a cancelled dialog's "config.rtf" lands
        tw::setMessageBoxHook([this](const QString &text, QMessageBox::Icon) { m_messages << text; });
    }

    // Save then load gives back the text and its colours; the file is 7-bit clean. CR LF, LF and
    // lone CR are each one paragraph; a colour beyond the table is the default.
    void rtfRoundTrip()
    {
        QString latin1;
        for (int byte = 1; byte < 256; ++byte)
            latin1 += byte == '\r' ? QString() : QString(QChar(byte)); // CR is a line end
        for (const RichText &text : { RichText {},
                 rich({ { "notes\n\n\tx\t\n", {} }, { "/srv/tftp/r1-confg", red },
                     { "version 15.2\nend", blue }, { " typed", {} }, { "y", 0x123456 } }),
                 rich({ { "banner motd {\\} \\par {\\rtf1 }}{", blue } }), rich({ { latin1, blue } }),
                 rich({ { QStringLiteral("caf\u00e9 \u20ac \u4e2d\u6587 \U0001F600"), red } }) }) {
            const QByteArray rtf = RtfWriter::write(text);
            QVERIFY2(rtf.startsWith("{\\rtf1")
                    && std::all_of(rtf.begin(), rtf.end(), [](char c) { return uchar(c) < 0x80; }),
                rtf.constData());
            QVERIFY2(RtfReader::read(rtf) == text, rtf.constData());
        }
        const QByteArray rtf = RtfWriter::write(rich({ { "a\r\nb\rc\nd", blue } }));
        QCOMPARE(rtf.count("\\par\r\n"), 3);
        QCOMPARE(RtfReader::read(rtf).plainText(), QStringLiteral("a\nb\nc\nd"));
        // Also where the colour changes between the CR and the LF (a loaded file can hold that).
        QCOMPARE(RtfReader::read(RtfWriter::write(rich({ { "a\r", blue }, { "\nb", red } }))),
            rich({ { "a", blue }, { "\nb", red } }));
        QCOMPARE(RtfReader::read("{\\rtf1{\\colortbl;\\red255\\green0\\blue0;}\\cf999 a\\cf1 b}"),
            rich({ { "a", {} }, { "b", red } }));

        // Files from other writers read as a person sees them, colours on the right words.
        QCOMPARE(RtfReader::read(fixture("libreoffice_colours.rtf")),
            rich({ { "hostname core-sw1\n", {} }, { "interface GigabitEthernet0/1", red }, { "\n", {} },
                { "description uplink {core} \\ backslash", blue },
                { QStringLiteral("\ncaf\u00e9 na\u00efve \u20ac5 \u2014 \u4e2d\u6587\n"), {} },
                { "end", 0x008000 }, { "\n", {} } }));
        QCOMPARE(RtfReader::read(fixture("wordpad_style.rtf")),
            rich({ { "/tftpboot/router1-confg", red },
                { QStringLiteral(
                      "!\nversion 15.2\nhostname router1\nbanner motd ^C caf\u00e9 \u20ac\u20ac {x}\ty^C\n"),
                    blue },
                { "end\n", {} } }));
        // One of ours, re-saved by LibreOffice.
        QCOMPARE(RtfReader::read(fixture("libreoffice_resaved.rtf")),
            rich({ { "/srv/tftp/r1-confg", red }, { "\n", {} }, { "hostname r1", blue }, { "\n", {} },
                { QStringLiteral("{braces} \\ caf\u00e9"), blue }, { "\n", {} }, { "end", blue },
                { "\n", {} } }));
    }

    // Broken files load what they can (one that sends the reader into a runaway
    // parse meets the test's time limit). Every truncation and thousands of
    // corruptions: no crash, never more text than bytes.
    void rtfMalformedAndFuzz()
    {
        QByteArray colours = "{\\rtf1{\\colortbl;";
        for (int i = 0; i < 20000; ++i)
            colours += "\\red1\\green2\\blue3;";
        for (const auto &[rtf, plain] : std::initializer_list<std::pair<QByteArray, QString>> {
                 { "{\\rtf1\\ansi hello", "hello" }, // never closed
                 { "{\\rtf1 a}}}b}", "ab" }, { "{\\rtf1 a\\'", "a" }, { "{\\rtf1 a\\'zzb}", "azzb" },
                 { "{\\rtf1 a\\u-1?b}", QStringLiteral("a\uffffb") },
                 { "{\\rtf1 {\\uc2\\u233 xy}z}", QStringLiteral("\u00e9z") },
                 { "{\\rtf1 {\\uc3\\u233 x}yz}", QStringLiteral("\u00e9yz") }, // skipping ends with the group
                 { "{\\rtf1 a\\bin99999999999 bcd}", "a" }, { "{\\rtf1 a\\bin3 {}\\b}", "ab" },
                 { "{\\rtf1\\cf99999999999999999999 x\\fs-99999999999999 y}", "xy" },
                 { "{\\rtf1 a\\" + QByteArray(100000, 'q') + " b}", "ab" },
                 { "{\\rtf1 a{\\*\\whatever secret}b}", "ab" }, { "{\\rtf1 a{\\v hidden}\\v0 b}", "ab" },
                 { QByteArray("{\\rtf1 a\0b}", 11), QStringLiteral("a") + QChar(0) + "b" },
                 { QByteArray(100000, '{') + "\\rtf1 deep" + QByteArray(100000, '}') + "after", "deepafter" },
                 { colours + "}\\cf19999 x\\cf2 y}", "xy" } }) {
            QCOMPARE(RtfReader::read(rtf).plainText(), plain);
        }

        const QByteArray base = RtfWriter::write(rich({ { "/srv/tftp/r1-confg", red },
                                    { QStringLiteral("hostname r1\n{x}\\y caf\u00e9 \u20ac\n"), blue } }))
            + fixture("libreoffice_colours.rtf");
        for (qsizetype cut = 0; cut <= base.size(); ++cut)
            QVERIFY(RtfReader::read(base.left(cut)).plainText().size() <= cut);
        QRandomGenerator random(1350);
        static const char alphabet[] = "{}\\'*uc0123456789-abinrtf ;\x80\xff";
        for (int round = 0; round < 3000; ++round) {
            QByteArray mutated = base;
            for (int edits = 1 + int(random.bounded(20)); edits > 0; --edits)
                mutated[random.bounded(int(mutated.size()))]
                    = alphabet[random.bounded(int(sizeof alphabet - 1))];
            QVERIFY(RtfReader::read(mutated).plainText().size() <= mutated.size());
        }
    }

    // Save and load through the dialogs: the preset name, a cancelled dialog falling back to
    // "config.rtf" in the working folder, a missing file or one that is not RTF loading nothing
    // and saying nothing, a failed save reported.
    void windowSaveAndLoad()
    {
        ConfigWindow source, target;
        source.configBox()->setPlainText(QStringLiteral("typed "));
        source.CaptureFileName(QStringLiteral("/srv/tftp/{x}\\confg"));
        source.CaptureData("interface Gi0/1\n description caf\xe9\n");
        QStringList presets;
        QString chosen = m_dir.filePath(QStringLiteral("saved.rtf"));
        const auto dialog = [&](QWidget *, const QString &preset) { return (presets << preset, chosen); };
        source.setSaveDialog(dialog);
        target.setOpenDialog(dialog);
        target.configBox()->setPlainText(QStringLiteral("replaced"));
        source.findChild<QAction *>(QStringLiteral("MnuSaveConfig"))->trigger();
        target.findChild<QAction *>(QStringLiteral("MnuLoadConfig"))->trigger();
        QCOMPARE(contents(target), contents(source));
        QCOMPARE(presets, (QStringList { "config.rtf", "config.rtf" }));
        chosen.clear();
        target.configBox()->clear();
        source.saveConfigClicked();
        target.loadConfigClicked();
        QCOMPARE(contents(target), contents(source));
        QVERIFY(QFile::remove(m_dir.filePath(QStringLiteral("config.rtf"))));
        target.loadConfigClicked();
        QCOMPARE(contents(target), contents(source));
        for (const QByteArray &notRtf : { QByteArray("hostname r1\n"), QByteArray(" {\\rtf1 late header}"),
                 QByteArray("{\\rt"), QByteArray() }) {
            chosen = m_dir.filePath(QStringLiteral("running-config.txt"));
            QVERIFY(tw::test::writeFile(chosen, notRtf));
            target.findChild<QAction *>(QStringLiteral("MnuLoadConfig"))->trigger();
            QCOMPARE(contents(target), contents(source));
        }
        QVERIFY(m_messages.isEmpty());
        chosen = m_dir.filePath(QStringLiteral("no/such/dir/x.rtf"));
        source.saveConfigClicked();
        QCOMPARE(m_messages.size(), 1);
    }

    // Only "Capture Config" and "Stop Capture" switch capture; hiding the window leaves it on. Stopped after
    // two blocks of an upload, the rest goes to the file at its own offsets. Then two uploads, one per real
    // client: name in red, contents in blue, each at the end of the view whatever the caret, not on disk.
    void tftpCapture()
    {
        ConfigWindow window;
        window.configBox()->setPlainText(QStringLiteral("notes typed by hand\n"));
        tftptest::Fixture tftp;
        tftp.server.setCaptureSink(&window);
        const QString &folder = tftp.folder;
        auto *capture = window.findChild<QAction *>(QStringLiteral("MnuCaptureConfig"));
        auto *stop = window.findChild<QAction *>(QStringLiteral("MnuStopCapture"));
        QVERIFY(capture && stop && capture->isEnabled() && !stop->isEnabled() && !window.capturing());
        QSignalSpy changed(&window, &ConfigWindow::capturingChanged);
        window.show();
        capture->trigger();
        window.close();
        QVERIFY(window.isHidden() && window.capturing() && !capture->isEnabled() && stop->isEnabled());

        const QByteArray data
            = QByteArray(512, 'A') + QByteArray(512, 'B') + QByteArray(512, 'C') + QByteArray(412, 'D');
        using tftptest::packet;
        tftptest::Client client;
        QCOMPARE(client.ask(tftptest::request(2, "mid-confg"), tftp.port), packet(4, 0));
        for (int number = 1; number <= 4; ++number) {
            if (number == 3)
                stop->trigger();
            QCOMPARE(client.ask(packet(3, number, data.mid((number - 1) * 512, 512))), packet(4, number));
        }
        QVERIFY(capture->isEnabled() && !stop->isEnabled() && !window.capturing() && changed.size() == 2);
        QCOMPARE(tw::test::readFile(folder + QStringLiteral("/mid-confg")),
            QByteArray(1024, '\0') + data.mid(1024));

        window.configBox()->moveCursor(QTextCursor::Start); // captures still go to the end
        window.captureConfig();
        const QByteArray first
            = QByteArray("interface Gi0/1\n description {uplink} \\ caf\xe9\n").repeated(60);
        const QByteArray second = QByteArrayLiteral("hostname r2\0\xff\x80\nend\n"); // one block, any byte
        put(QStringLiteral("tftp"), first, QStringLiteral("r1-confg"), tftp.port);
        put(QStringLiteral("atftp"), second, QStringLiteral("r2-confg"), tftp.port);
        QCOMPARE(contents(window),
            rich({ { "notes typed by hand\n", {} }, { folder + QStringLiteral("/mid-confg"), red },
                { QString::fromLatin1(data.left(1024)), blue }, { folder + QStringLiteral("/r1-confg"), red },
                { QString::fromLatin1(first), blue }, { folder + QStringLiteral("/r2-confg"), red },
                { QString::fromLatin1(second), blue } }));
        QCOMPARE(QDir(folder).entryList(QDir::Files), QStringList { "mid-confg" });
    }
};

QTEST_MAIN(TestCapture)
#include "tst_capture.moc"
