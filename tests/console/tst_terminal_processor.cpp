#include "console/terminal_processor.h"

#include <QRandomGenerator>
#include <QTest>

namespace {
const QString noCaption = QStringLiteral("<none>");

struct Outcome
{
    QString terminal;
    QString log;
    QString caption = noCaption;
};

// Applies ops to a plain string the way ConsoleBox applies them.
void apply(const QList<TerminalOp> &ops, Outcome &out)
{
    for (const TerminalOp &op : ops) {
        switch (op.kind) {
        case TerminalOp::Append:
            out.terminal += op.text;
            break;
        case TerminalOp::DeleteLast:
            out.terminal.chop(out.terminal.endsWith(QLatin1String("\r\n")) ? 2 : 1);
            break;
        case TerminalOp::LogLine:
            out.log += op.text;
            break;
        case TerminalOp::Caption:
            out.caption = op.text;
            break;
        }
    }
}

QByteArray banner(int length)
{
    return QByteArray(length, 'x');
}
} // namespace

class TestTerminalProcessor : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void feed_data();
    void feed();
    void noteAppendedCountsTowardsTheTail();
    void floodKeepsPromptDetection();
    void randomBytesShowOnlyPrintableText();
    void keyBytes_data();
    void keyBytes();
};

void TestTerminalProcessor::feed_data()
{
    QTest::addColumn<QList<QByteArray>>("blocks");
    QTest::addColumn<QString>("terminal");
    QTest::addColumn<QString>("log");
    QTest::addColumn<QString>("caption");

    QTest::newRow("CR LF gives one line end") << QList<QByteArray> { "a\r\nb\r\n" } << "a\r\nb\r\n"
                                              << "" << noCaption;
    QTest::newRow("LF alone gives none") << QList<QByteArray> { "a\nb\n" } << "ab"
                                         << "" << noCaption;
    QTest::newRow("partial line shown at once") << QList<QByteArray> { "Username: " } << "Username: "
                                                << "" << noCaption;
    QTest::newRow("backspace within a block") << QList<QByteArray> { "ab\bc" } << "ac"
                                              << "" << noCaption;
    QTest::newRow("backspace across blocks") << QList<QByteArray> { "ab", "\b" } << "a"
                                             << "" << noCaption;
    QTest::newRow("backspace after pending is used up") << QList<QByteArray> { "ab", "c\b\b" } << "a"
                                                        << "" << noCaption;
    QTest::newRow("backspace joins lines") << QList<QByteArray> { "ab\r\n", "\b" } << "ab"
                                           << "" << noCaption;
    QTest::newRow("backspace on empty terminal") << QList<QByteArray> { "\b\bx" } << "x"
                                                 << "" << noCaption;
    QTest::newRow("controls and 8-bit dropped") << QList<QByteArray> { QByteArray("a\x07\x1b[0m\0\xff\xe9\x7f"
                                                                                  "b",
        11) } << "a[0mb"
                                                << "" << noCaption;
    QTest::newRow("star line goes to the log too")
        << QList<QByteArray> { "*Mar  1 00:01:02: %LINK-3-UPDOWN\r\n" }
        << "*Mar  1 00:01:02: %LINK-3-UPDOWN\r\n"
        << "*Mar  1 00:01:02: %LINK-3-UPDOWN\r\n"
        << noCaption;
    QTest::newRow("line without star stays out of the log")
        << QList<QByteArray> { "Mar  1 %LINK-3-UPDOWN\r\n" } << "Mar  1 %LINK-3-UPDOWN\r\n"
        << "" << noCaption;
    QTest::newRow("star line split across blocks is not logged")
        << QList<QByteArray> { "*Mar 1", " up\r\n" } << "*Mar 1 up\r\n"
        << "" << noCaption;
    QTest::newRow("single > is not a prompt")
        << QList<QByteArray> { banner(50) + "\r\n", ">" } << QString(banner(50) + "\r\n>") << "" << noCaption;
    QTest::newRow("R1# names the console")
        << QList<QByteArray> { banner(50) + "\r\n", "R1#" } << QString(banner(50) + "\r\nR1#") << ""
        << "R1#";
    QTest::newRow("R1> names the console")
        << QList<QByteArray> { banner(50) + "\r\n", "\r\nR1>" } << QString(banner(50) + "\r\n\r\nR1>") << ""
        << "R1>";
    QTest::newRow("R1(config)# gives R1") << QList<QByteArray> { banner(50) + "\r\n", "R1(config)#" }
                                          << QString(banner(50) + "\r\nR1(config)#") << ""
                                          << "R1";
    QTest::newRow("prompt in the same block as the banner")
        << QList<QByteArray> { banner(50) + "\r\nsw-core-2#" } << QString(banner(50) + "\r\nsw-core-2#") << ""
        << "sw-core-2#";
    QTest::newRow("prompt followed by a line end is no prompt") << QList<QByteArray> { banner(50) + "\r\n",
        "R1#\r\n" } << QString(banner(50) + "\r\nR1#\r\n") << "" << noCaption;
    QTest::newRow("short terminal empties the caption") << QList<QByteArray> { "R1#" } << "R1#"
                                                        << ""
                                                        << "";
    QTest::newRow("40 characters are too few")
        << QList<QByteArray> { banner(38) + "\r\n", "R1#" } << QString(banner(38) + "\r\nR1#") << ""
        << "";
    QTest::newRow("41 characters are enough")
        << QList<QByteArray> { banner(39) + "\r\n", "R1#" } << QString(banner(39) + "\r\nR1#") << ""
        << "R1#";
    QTest::newRow("a parenthesis in the tail ends the name early")
        << QList<QByteArray> { banner(40) + " (c) 1986\r\n", "R1#" }
        << QString(banner(40) + " (c) 1986\r\nR1#") << ""
        << "";
}

void TestTerminalProcessor::feed()
{
    QFETCH(QList<QByteArray>, blocks);
    QFETCH(QString, terminal);
    QFETCH(QString, log);
    QFETCH(QString, caption);

    TerminalProcessor processor;
    Outcome out;
    for (const QByteArray &block : blocks)
        apply(processor.feed(block), out);
    QCOMPARE(out.terminal, terminal);
    QCOMPARE(out.log, log);
    QCOMPARE(out.caption, caption);
}

void TestTerminalProcessor::noteAppendedCountsTowardsTheTail()
{
    // Status lines written by the session count as terminal text; clearing
    // the terminal makes the tail too short again.
    TerminalProcessor processor;
    processor.noteAppended(QStringLiteral("Connection timed out\r>\rConnection timed out\r>\r"));
    Outcome out;
    apply(processor.feed("Router>"), out);
    QCOMPARE(out.caption, QStringLiteral("Router>"));

    processor.noteCleared();
    out = {};
    apply(processor.feed("Router>"), out);
    QCOMPARE(out.caption, QString());
}

void TestTerminalProcessor::floodKeepsPromptDetection()
{
    TerminalProcessor processor;
    QByteArray flood;
    for (int i = 0; i < 20000; ++i)
        flood += " ip address 10.0." + QByteArray::number(i % 250) + ".1 255.255.255.0\r\n";
    Outcome out;
    apply(processor.feed(flood), out);
    QCOMPARE(out.terminal.size(), flood.size());
    QVERIFY(processor.tail(41).endsWith(QLatin1String("255.255.255.0\r\n")));
    apply(processor.feed("edge-7#"), out);
    QCOMPARE(out.caption, QStringLiteral("edge-7#"));
}

void TestTerminalProcessor::randomBytesShowOnlyPrintableText()
{
    QRandomGenerator random(20261122);
    TerminalProcessor processor;
    Outcome out;
    for (int round = 0; round < 500; ++round) {
        QByteArray block(int(random.bounded(300)), '\0');
        for (char &byte : block)
            byte = char(random.bounded(256));
        apply(processor.feed(block), out);
    }
    for (const QChar ch : std::as_const(out.terminal))
        QVERIFY2(
            (ch.unicode() >= 32 && ch.unicode() <= 126) || ch == QLatin1Char('\r') || ch == QLatin1Char('\n'),
            qPrintable(QString::number(ch.unicode())));
    // A line end is always the CR LF pair the processor appends.
    QCOMPARE(out.terminal.count(QLatin1Char('\n')), out.terminal.count(QLatin1String("\r\n")));
}

void TestTerminalProcessor::keyBytes_data()
{
    QTest::addColumn<int>("key");
    QTest::addColumn<int>("modifiers");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("bytes");

    QTest::newRow("letter") << int(Qt::Key_S) << 0 << "s" << QByteArray("s");
    QTest::newRow("Return") << int(Qt::Key_Return) << 0 << "\r" << QByteArray("\r");
    QTest::newRow("Tab") << int(Qt::Key_Tab) << 0 << "\t" << QByteArray("\t");
    QTest::newRow("Left") << int(Qt::Key_Left) << 0 << "" << QByteArray("\x1b[D");
    QTest::newRow("Down") << int(Qt::Key_Down) << 0 << "" << QByteArray("\x1b[B");
    QTest::newRow("Ctrl+Break") << int(Qt::Key_Pause) << int(Qt::ControlModifier) << ""
                                << QByteArray("\xff\xf3");
    QTest::newRow("Break alone") << int(Qt::Key_Pause) << 0 << "" << QByteArray();
    QTest::newRow("Ctrl+A") << int(Qt::Key_A) << int(Qt::ControlModifier) << "" << QByteArray("\x01");
    QTest::newRow("Delete sends nothing") << int(Qt::Key_Delete) << 0 << "\x7f" << QByteArray();
    QTest::newRow("Latin-1 letter") << int(Qt::Key_Eacute) << 0 << "\u00e9" << QByteArray("\xe9");
}

void TestTerminalProcessor::keyBytes()
{
    QFETCH(int, key);
    QFETCH(int, modifiers);
    QFETCH(QString, text);
    QFETCH(QByteArray, bytes);
    QCOMPARE(TerminalProcessor::keyBytes(key, Qt::KeyboardModifiers(modifiers), text), bytes);
}

QTEST_GUILESS_MAIN(TestTerminalProcessor)
#include "tst_terminal_processor.moc"
