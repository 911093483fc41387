#include "capture/config_window.h"
#include "capture/rich_text_document.h"
#include "util/message_box.h"
#include "util/twips.h"

#include <QAction>
#include <QDir>
#include <QMenuBar>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTextEdit>

namespace {
constexpr quint32 red = 0xFF0000;
constexpr quint32 blue = 0x0000FF;

RichText contents(const ConfigWindow &window)
{
    return tw::richTextFromDocument(*window.configBox()->document());
}

RichText rich(std::initializer_list<RichRun> runs)
{
    RichText text;
    for (const RichRun &run : runs)
        text.append(run.text, run.colour);
    return text;
}
} // namespace

class TestConfigWindow : public QObject
{
    Q_OBJECT
private:
    QStringList m_messages;
    QTemporaryDir m_dir;
    QString m_previousCurrent;

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_previousCurrent = QDir::currentPath();
        QDir::setCurrent(m_dir.path()); // where a cancelled dialog's "config.rtf" lands
    }
    void cleanupTestCase() { QDir::setCurrent(m_previousCurrent); }
    void init()
    {
        m_messages.clear();
        tw::setMessageBoxHook([this](const QString &text, QMessageBox::Icon) { m_messages << text; });
        QFile::remove(m_dir.filePath(QStringLiteral("config.rtf")));
    }
    void cleanup() { tw::setMessageBoxHook({}); }

    // The four entries in order; only the two capture entries change the
    // flag, and hiding the window leaves it alone.
    void menusAndFlag()
    {
        ConfigWindow window;
        QCOMPARE(window.objectName(), QStringLiteral("Config"));
        QCOMPARE(window.windowTitle(), QStringLiteral("Config"));
        const QList<QAction *> entries = window.findChild<QMenuBar *>()->actions();
        QStringList names;
        QStringList texts;
        for (QAction *action : entries) {
            names << action->objectName();
            texts << action->text();
        }
        QCOMPARE(
            names, (QStringList { "MnuLoadConfig", "MnuSaveConfig", "MnuCaptureConfig", "MnuStopCapture" }));
        QCOMPARE(texts, (QStringList { "Load Config", "Save Config", "Capture Config", "Stop Capture" }));
        auto *capture = window.findChild<QAction *>(QStringLiteral("MnuCaptureConfig"));
        auto *stop = window.findChild<QAction *>(QStringLiteral("MnuStopCapture"));
        QVERIFY(capture->isEnabled() && !stop->isEnabled() && !window.capturing());

        QSignalSpy changed(&window, &ConfigWindow::capturingChanged);
        QSignalSpy closed(&window, &ChildWindow::closeRequested);
        window.show();
        capture->trigger();
        QVERIFY(!capture->isEnabled() && stop->isEnabled() && window.capturing());
        window.close();
        QVERIFY(window.isHidden());
        QCOMPARE(closed.size(), 1);
        QVERIFY(window.capturing());
        stop->trigger();
        QVERIFY(capture->isEnabled() && !stop->isEnabled() && !window.capturing());
        QCOMPARE(changed.size(), 2);
    }

    // Captures land at the very end in red and blue with nothing added
    // between them, after whatever the user typed, wherever the caret is.
    void appendsAtEnd()
    {
        ConfigWindow window;
        window.configBox()->setPlainText(QStringLiteral("notes typed by hand\n"));
        window.configBox()->moveCursor(QTextCursor::Start);
        window.CaptureFileName(QStringLiteral("/srv/tftp/r1-confg"));
        window.CaptureData("hostname r1\n");
        window.CaptureData("end\n");
        window.CaptureFileName(QStringLiteral("/srv/tftp/r2-confg"));
        window.CaptureData(QByteArray("bin\0\xff\x80", 6));
        QCOMPARE(contents(window),
            rich({ { "notes typed by hand\n", {} }, { "/srv/tftp/r1-confg", red },
                { "hostname r1\nend\n", blue }, { "/srv/tftp/r2-confg", red },
                { QStringLiteral("bin") + QChar(0) + QChar(0xff) + QChar(0x80), blue } }));
    }

    // Save and load through the dialogs: presets, cancellation falling back
    // to "config.rtf" in the working folder, and a missing file loading
    // nothing without a word.
    void saveAndLoad()
    {
        ConfigWindow source;
        source.configBox()->setPlainText(QStringLiteral("typed "));
        source.CaptureFileName(QStringLiteral("/srv/tftp/{x}\\confg"));
        source.CaptureData("interface Gi0/1\n description caf\xe9\n");
        QStringList presets;
        const QString chosen = m_dir.filePath(QStringLiteral("saved.rtf"));
        source.setSaveDialog([&](QWidget *, const QString &preset) {
            presets << preset;
            return chosen;
        });
        source.findChild<QAction *>(QStringLiteral("MnuSaveConfig"))->trigger();
        QVERIFY(QFile::exists(chosen));

        ConfigWindow target;
        target.configBox()->setPlainText(QStringLiteral("replaced"));
        target.setOpenDialog([&](QWidget *, const QString &preset) {
            presets << preset;
            return chosen;
        });
        target.findChild<QAction *>(QStringLiteral("MnuLoadConfig"))->trigger();
        QCOMPARE(contents(target), contents(source));
        QCOMPARE(presets, (QStringList { "config.rtf", "config.rtf" }));

        // Cancelled save: config.rtf in the working folder; cancelled load reads it back.
        source.setSaveDialog([](QWidget *, const QString &) { return QString(); });
        source.findChild<QAction *>(QStringLiteral("MnuSaveConfig"))->trigger();
        QVERIFY(QFile::exists(m_dir.filePath(QStringLiteral("config.rtf"))));
        ConfigWindow third;
        third.setOpenDialog([](QWidget *, const QString &) { return QString(); });
        third.findChild<QAction *>(QStringLiteral("MnuLoadConfig"))->trigger();
        QCOMPARE(contents(third), contents(source));

        QFile::remove(m_dir.filePath(QStringLiteral("config.rtf")));
        third.findChild<QAction *>(QStringLiteral("MnuLoadConfig"))->trigger();
        QCOMPARE(contents(third), contents(source));
        QVERIFY(m_messages.isEmpty());
    }

    void saveFailureIsReported()
    {
        ConfigWindow window;
        window.setSaveDialog(
            [this](QWidget *, const QString &) { return m_dir.filePath("no/such/dir/x.rtf"); });
        window.findChild<QAction *>(QStringLiteral("MnuSaveConfig"))->trigger();
        QCOMPARE(m_messages.size(), 1);
    }

    // A word processor's file shows its colours in the view.
    void loadsThirdPartyColours()
    {
        ConfigWindow window;
        QVERIFY(window.loadConfig(QStringLiteral(TW_SOURCE_DIR "/tests/capture/data/wordpad_style.rtf")));
        const RichText text = contents(window);
        QCOMPARE(text.runs.value(0), (RichRun { QStringLiteral("/tftpboot/router1-confg"), red }));
        QCOMPARE(text.runs.value(1).colour, std::optional<quint32>(blue));
    }

    void resizeKeepsMargins()
    {
        ConfigWindow window;
        window.show();
        window.resize(600, 400);
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        const QRect box = window.configBox()->geometry();
        const int menuHeight = window.findChild<QMenuBar *>()->geometry().height();
        QCOMPARE(box.topLeft(), QPoint(tw::twips(100), menuHeight + tw::twips(100)));
        QCOMPARE(box.width(), 600 - tw::twips(200));
        QCOMPARE(box.height(), 400 - menuHeight - tw::twips(200));
        auto *logbox = window.findChild<QTextEdit *>(QStringLiteral("logbox"));
        QVERIFY(logbox && logbox != window.configBox());
        QVERIFY(logbox->font().family().startsWith(QStringLiteral("Courier")));
    }
};

QTEST_MAIN(TestConfigWindow)
#include "tst_config_window.moc"
