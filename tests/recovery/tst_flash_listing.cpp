// The word splitter and the flash listing reader, without any connection.
// (The list's ticking rule and the copy commands are tested through a
// console against a fake device.)

#include "recovery/flash_listing_reader.h"
#include "util/word_splitter.h"

#include <QRandomGenerator>
#include <QTest>

class TestFlashListing : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void splitter_data();
    void splitter();
    void reader_data();
    void reader();
    void readerAcrossBlocks();
    void readerSurvivesJunk();
};

void TestFlashListing::splitter_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("words");
    QTest::newRow("aligned columns") << "    1  -rw-     8617624   Mar 01 1993  c2600.bin"
                                     << QStringList { "1", "-rw-", "8617624", "Mar", "01", "1993",
                                            "c2600.bin" };
    QTest::newRow("single spaces") << "a b c" << QStringList { "a", "b", "c" };
    QTest::newRow("trailing spaces") << "a   " << QStringList { "a" };
    QTest::newRow("only spaces") << "     " << QStringList {};
    QTest::newRow("empty") << "" << QStringList {};
    QTest::newRow("tab is not a separator") << "a\tb c" << QStringList { "a\tb", "c" };
}

void TestFlashListing::splitter()
{
    QFETCH(QString, text);
    QFETCH(QStringList, words);
    QCOMPARE(tw::splitWords(text), words);
    for (int i = 0; i < words.size(); ++i)
        QCOMPARE(tw::wordAt(text, i + 1), words.at(i));
    QCOMPARE(tw::wordAt(text, words.size() + 1), QString());
    QCOMPARE(tw::wordAt(text, 0), QString());
}

void TestFlashListing::reader_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QList<QStringList>>("entries");
    QTest::addColumn<QString>("pending");

    const QStringList c2600 { "1", "-rw-", "8617624", "Mar", "01", "1993", "00:01:41", "+00:00",
        "c2600.bin" };
    QTest::newRow("usual line, CR LF")
        << QByteArray("    1  -rw-     8617624   Mar 01 1993 00:01:41 +00:00  c2600.bin\r\n")
        << QList<QStringList> { c2600 } << QString();
    QTest::newRow("header, blank line and prompt dropped")
        << QByteArray("Directory of flash:/\r\n\r\nR1#") << QList<QStringList> {} << "R1#";
    QTest::newRow("summary line is kept (it starts with a number)")
        << QByteArray("15998976 bytes total (7381248 bytes free)\r\n")
        << QList<QStringList> { { "15998976", "bytes", "total", "(7381248", "bytes", "free)" } } << QString();
    QTest::newRow("more prompt wiped by backspaces")
        << QByteArray(
               " --More-- \b\b\b\b\b\b\b\b\b\b          \b\b\b\b\b\b\b\b\b\b    2  -rw-  1 Jan 02 2001 "
               "00:00:01 +00:00  a.txt\r\n")
        << QList<QStringList> { { "2", "-rw-", "1", "Jan", "02", "2001", "00:00:01", "+00:00", "a.txt" } }
        << QString();
    QTest::newRow("backspace on an empty line is harmless")
        << QByteArray("\b\b\b3 x\r") << QList<QStringList> { { "3", "x" } } << QString();
    QTest::newRow("words past the ninth are not kept")
        << QByteArray("4 a b c d e f g h i j\r")
        << QList<QStringList> { { "4", "a", "b", "c", "d", "e", "f", "g", "h" } } << QString();
    QTest::newRow("number must be all digits")
        << QByteArray("1a -rw- x\r-1 y\r1.5 z\r") << QList<QStringList> {} << QString();
    QTest::newRow("NUL and escape dropped, not part of the number") << QByteArray("\r\0"
                                                                                  "5\x1b z\r",
        7) << QList<QStringList> { { "5", "z" } } << QString();
}

void TestFlashListing::reader()
{
    QFETCH(QByteArray, input);
    QFETCH(QList<QStringList>, entries);
    QFETCH(QString, pending);
    FlashListingReader reader;
    QCOMPARE(reader.feed(input), entries);
    QCOMPARE(reader.pendingLine(), pending);
}

void TestFlashListing::readerAcrossBlocks()
{
    // TCP delivers whatever it likes; the same listing cut at every offset
    // gives the same entries.
    const QByteArray listing = "Directory of flash:/\r\n\r\n"
                               "    1  -rw-     8617624   Mar 01 1993 00:01:41 +00:00  c2600.bin\r\n"
                               "    2  -rw-        2048   Mar 02 1993 10:11:12 +00:00  startup.cfg\r\n"
                               "15998976 bytes total (7381248 bytes free)\r\nR1#";
    FlashListingReader whole;
    const QList<QStringList> expected = whole.feed(listing);
    QCOMPARE(expected.size(), 3);
    QCOMPARE(expected.at(1).at(8), QStringLiteral("startup.cfg"));
    for (int cut = 1; cut < listing.size(); ++cut) {
        FlashListingReader reader;
        QList<QStringList> got = reader.feed(listing.left(cut));
        got += reader.feed(listing.mid(cut));
        QCOMPARE(got, expected);
        QCOMPARE(reader.pendingLine(), QStringLiteral("R1#"));
    }
}

void TestFlashListing::readerSurvivesJunk()
{
    FlashListingReader reader;
    // A device that never ends its line cannot make the reader grow without bound.
    reader.feed(QByteArray(1 << 20, 'x'));
    QCOMPARE(reader.pendingLine().size(), FlashListingReader::maxLineLength);
    QVERIFY(reader.feed("\r").isEmpty());

    auto *random = QRandomGenerator::global();
    for (int round = 0; round < 500; ++round) {
        QByteArray junk(int(random->bounded(600)), Qt::Uninitialized);
        for (char &c : junk)
            c = char(random->bounded(256));
        for (const QStringList &entry : reader.feed(junk)) {
            QVERIFY(FlashListingReader::isNumericWord(entry.first()));
            QVERIFY(entry.size() <= FlashListingReader::wordsKept);
        }
    }
    // After any junk, a CR resynchronises and a good line reads correctly.
    reader.feed("\r");
    const auto entries = reader.feed("7 -rw- 10 Jan 1 2020 00:00:00 +00:00 ok.bin\r");
    QCOMPARE(entries.size(), 1);
    QCOMPARE(entries.first().at(8), QStringLiteral("ok.bin"));
}

QTEST_GUILESS_MAIN(TestFlashListing)
#include "tst_flash_listing.moc"
