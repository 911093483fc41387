#include "capture/rtf_reader.h"
#include "capture/rtf_writer.h"

#include <QElapsedTimer>
#include <QFile>
#include <QRandomGenerator>
#include <QTest>

namespace {

constexpr quint32 red = 0xFF0000;
constexpr quint32 blue = 0x0000FF;

QByteArray fixture(const char *name)
{
    QFile file(QStringLiteral(TW_SOURCE_DIR "/tests/capture/data/") + QLatin1String(name));
    if (!file.open(QIODevice::ReadOnly))
        qFatal("missing fixture %s", name);
    return file.readAll();
}

// The colour of the run holding the first character of `needle`, or -1 when
// the text is not there, -2 when it has no colour.
qint64 colourOf(const RichText &text, const QString &needle)
{
    const qsizetype at = text.plainText().indexOf(needle);
    if (at < 0)
        return -1;
    qsizetype offset = 0;
    for (const RichRun &run : text.runs) {
        if (at < offset + run.text.size())
            return run.colour ? qint64(*run.colour) : -2;
        offset += run.text.size();
    }
    return -1;
}

RichText rich(std::initializer_list<RichRun> runs)
{
    RichText text;
    for (const RichRun &run : runs)
        text.append(run.text, run.colour);
    return text;
}

} // namespace

Q_DECLARE_METATYPE(RichText)

class TestRtf : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void roundTrip_data()
    {
        QTest::addColumn<RichText>("text");
        QTest::newRow("empty") << RichText {};
        QTest::newRow("plain lines") << rich(
            { { "hostname r1\ninterface Gi0/1\n no shutdown\n!\nend\n", {} } });
        QTest::newRow("capture colours") << rich({ { "/srv/tftp/r1-confg", red },
            { "version 15.2\nhostname r1\n", blue }, { "/srv/tftp/r2-confg", red }, { "end", blue } });
        QTest::newRow("escapes") << rich({ { "banner motd {\\} \\par {\\rtf1 }}{", blue } });
        QString latin1;
        for (int byte = 1; byte < 256; ++byte) {
            if (byte != '\r') // a line end, see lineEnds()
                latin1 += QChar(byte);
        }
        QTest::newRow("every 8-bit character") << rich({ { latin1, blue } });
        QTest::newRow("beyond Latin-1")
            << rich({ { QStringLiteral("caf\u00e9 \u20ac \u4e2d\u6587 \U0001F600"), red } });
        QTest::newRow("blank lines and tabs") << rich({ { "\n\n\tx\t\n\n", {} }, { "y", 0x123456 } });
        QTest::newRow("colour after plain")
            << rich({ { "typed by hand ", {} }, { "captured", blue }, { " more", {} } });
    }
    void roundTrip()
    {
        QFETCH(RichText, text);
        const QByteArray rtf = RtfWriter::write(text);
        QVERIFY(rtf.startsWith("{\\rtf1"));
        // The file is 7-bit clean: everything else is escaped.
        for (char c : rtf)
            QVERIFY2(uchar(c) < 0x80, rtf.constData());
        QCOMPARE(RtfReader::read(rtf), text);
    }

    // Devices send CR LF, LF or lone CR; each is one paragraph in the file.
    void lineEnds()
    {
        const QByteArray rtf = RtfWriter::write(rich({ { "a\r\nb\rc\nd", blue } }));
        QCOMPARE(rtf.count("\\par\r\n"), 3);
        QCOMPARE(RtfReader::read(rtf).plainText(), QStringLiteral("a\nb\nc\nd"));
    }

    // Files from other writers: the text reads as a person sees it and the
    // colours sit on the right words.
    void thirdPartyFiles_data()
    {
        QTest::addColumn<QByteArray>("rtf");
        QTest::addColumn<QString>("plain");
        QTest::addColumn<QStringList>("needles");
        QTest::addColumn<QList<qint64>>("colours");

        QTest::newRow("LibreOffice") << fixture("libreoffice_colours.rtf")
                                     << QStringLiteral(
                                            "hostname core-sw1\ninterface GigabitEthernet0/1\n"
                                            "description uplink {core} \\ backslash\n"
                                            "caf\u00e9 na\u00efve \u20ac5 \u2014 \u4e2d\u6587\nend\n")
                                     << QStringList { "hostname", "interface", "description", "caf", "end" }
                                     << QList<qint64> { -2, red, blue, -2, 0x008000 };
        QTest::newRow("WordPad style")
            << fixture("wordpad_style.rtf")
            << QStringLiteral("/tftpboot/router1-confg!\nversion 15.2\nhostname "
                              "router1\nbanner motd ^C caf\u00e9 \u20ac\u20ac {x}\ty^C\n"
                              "end\n")
            << QStringList { "/tftpboot", "!", "banner", "end" } << QList<qint64> { red, blue, blue, -2 };
        QTest::newRow("ours, re-saved by LibreOffice")
            << fixture("libreoffice_resaved.rtf")
            << QStringLiteral("/srv/tftp/r1-confg\nhostname r1\n{braces} \\ caf\u00e9\nend\n")
            << QStringList { "/srv", "hostname", "{braces}", "end" }
            << QList<qint64> { red, blue, blue, blue };
    }
    void thirdPartyFiles()
    {
        QFETCH(QByteArray, rtf);
        QFETCH(QString, plain);
        QFETCH(QStringList, needles);
        QFETCH(QList<qint64>, colours);
        const RichText text = RtfReader::read(rtf);
        QCOMPARE(text.plainText(), plain);
        for (qsizetype i = 0; i < needles.size(); ++i)
            QVERIFY2(colourOf(text, needles.at(i)) == colours.at(i), qPrintable(needles.at(i)));
    }

    void malformed_data()
    {
        QTest::addColumn<QByteArray>("rtf");
        QTest::addColumn<QString>("plain");
        QTest::newRow("empty file") << QByteArray() << QString();
        QTest::newRow("never closed") << QByteArray("{\\rtf1\\ansi hello") << QStringLiteral("hello");
        QTest::newRow("stray closing braces") << QByteArray("{\\rtf1 a}}}b}") << QStringLiteral("ab");
        QTest::newRow("truncated escape") << QByteArray("{\\rtf1 a\\'") << QStringLiteral("a");
        QTest::newRow("truncated word") << QByteArray("{\\rtf1 a\\pa") << QStringLiteral("a");
        QTest::newRow("bad hex") << QByteArray("{\\rtf1 a\\'zzb}") << QStringLiteral("azzb");
        QTest::newRow("half hex") << QByteArray("{\\rtf1 a\\'4}") << QStringLiteral("a");
        QTest::newRow("u minus one") << QByteArray("{\\rtf1 a\\u-1?b}") << QStringLiteral("a\uffffb");
        QTest::newRow("negative u") << QByteArray("{\\rtf1 \\u-3913?}")
                                    << QString(QChar(char16_t(65536 - 3913)));
        QTest::newRow("uc skips two")
            << QByteArray("{\\rtf1 {\\uc2\\u233 xy}z}") << QStringLiteral("\u00e9z");
        QTest::newRow("uc ends with group")
            << QByteArray("{\\rtf1 {\\uc3\\u233 x}yz}") << QStringLiteral("\u00e9yz");
        QTest::newRow("uc at end") << QByteArray("{\\rtf1 a\\uc") << QStringLiteral("a");
        QTest::newRow("huge bin") << QByteArray("{\\rtf1 a\\bin99999999999 bcd}") << QStringLiteral("a");
        QTest::newRow("negative bin") << QByteArray("{\\rtf1 a\\bin-5 bc}") << QStringLiteral("abc");
        QTest::newRow("bin skips braces") << QByteArray("{\\rtf1 a\\bin3 {}\\b}") << QStringLiteral("ab");
        QTest::newRow("overflowing parameter")
            << QByteArray("{\\rtf1\\cf99999999999999999999 x\\fs-99999999999999 y}") << QStringLiteral("xy");
        QTest::newRow("huge control word")
            << QByteArray("{\\rtf1 a\\" + QByteArray(100000, 'q') + " b}") << QStringLiteral("ab");
        QTest::newRow("unknown star destination")
            << QByteArray("{\\rtf1 a{\\*\\whatever secret}b}") << QStringLiteral("ab");
        QTest::newRow("hidden text") << QByteArray("{\\rtf1 a{\\v hidden}\\v0 b}") << QStringLiteral("ab");
        QTest::newRow("nul bytes") << QByteArray("{\\rtf1 a\0b}", 11) << QStringLiteral("a") + QChar(0) + "b";
        QTest::newRow("deep nesting")
            << QByteArray(QByteArray(100000, '{') + "\\rtf1 deep" + QByteArray(100000, '}') + "after")
            << QStringLiteral("deepafter");
        QByteArray colours = "{\\rtf1{\\colortbl;";
        for (int i = 0; i < 20000; ++i)
            colours += "\\red1\\green2\\blue3;";
        QTest::newRow("20000 colours")
            << QByteArray(colours + "}\\cf19999 x\\cf2 y}") << QStringLiteral("xy");
    }
    void malformed()
    {
        QFETCH(QByteArray, rtf);
        QFETCH(QString, plain);
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(RtfReader::read(rtf).plainText(), plain);
        QVERIFY(clock.elapsed() < 2000);
    }

    void colourBeyondTable()
    {
        const RichText text
            = RtfReader::read("{\\rtf1{\\colortbl;\\red255\\green0\\blue0;}\\cf999 a\\cf1 b}");
        QCOMPARE(text, rich({ { "a", {} }, { "b", red } }));
    }

    // Every truncation and a few thousand random corruptions of a real file:
    // the reader returns without crashing and never invents more text than
    // the input has bytes.
    void fuzz()
    {
        const QByteArray base
            = RtfWriter::write(
                  rich({ { "/srv/tftp/r1-confg", red }, { "hostname r1\n{x}\\y caf\u00e9 \u20ac\n", blue } }))
            + fixture("libreoffice_colours.rtf");
        for (qsizetype cut = 0; cut <= base.size(); ++cut)
            QVERIFY(RtfReader::read(base.left(cut)).plainText().size() <= cut);
        QRandomGenerator random(1350);
        static const char alphabet[] = "{}\\'*uc0123456789-abinrtf ;\x80\xff";
        for (int round = 0; round < 3000; ++round) {
            QByteArray mutated = base;
            const int edits = 1 + int(random.bounded(20));
            for (int e = 0; e < edits; ++e)
                mutated[random.bounded(int(mutated.size()))]
                    = alphabet[random.bounded(int(sizeof alphabet - 1))];
            QVERIFY(RtfReader::read(mutated).plainText().size() <= mutated.size());
        }
    }
};

QTEST_GUILESS_MAIN(TestRtf)
#include "tst_rtf.moc"
