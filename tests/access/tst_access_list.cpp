#include "access/access_list.h"
#include "access/mask_display.h"

#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

class TestAccessList : public QObject
{
    Q_OBJECT

private:
    static void writeFile(const QString &path, const QByteArray &bytes)
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(bytes);
    }
    static QByteArray readFile(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
    }

private Q_SLOTS:
    void maskDisplay_data()
    {
        QTest::addColumn<int>("prefix");
        QTest::addColumn<QString>("text");
        QTest::newRow("0") << 0 << " 0 . 0 . 0 . 0 ";
        QTest::newRow("8") << 8 << " 255. 0 . 0 . 0 ";
        QTest::newRow("16") << 16 << " 255. 255. 0 . 0 ";
        QTest::newRow("20") << 20 << " 255. 255. 240. 0 ";
        QTest::newRow("24") << 24 << " 255. 255. 255. 0 ";
        QTest::newRow("25") << 25 << " 255. 255. 255. 128";
        QTest::newRow("30") << 30 << " 255. 255. 255. 252";
        QTest::newRow("32") << 32 << " 255. 255. 255. 255";
        QTest::newRow("clamped") << 40 << " 255. 255. 255. 255";
    }
    void maskDisplay()
    {
        QFETCH(int, prefix);
        QFETCH(QString, text);
        QCOMPARE(maskDisplayForm(prefix), text);
    }

    void field_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QStringList>("fields");
        QTest::newRow("full") << "10.1.0.0; 255. 255. 0 . 0 ;yes;no;/srv/lab;16;"
                              << QStringList { "10.1.0.0", " 255. 255. 0 . 0 ", "yes", "no", "/srv/lab",
                                     "16" };
        QTest::newRow("no final ;") << "10.1.0.0;m;yes;no;/srv/lab;16"
                                    << QStringList { "10.1.0.0", "m", "yes", "no", "/srv/lab", "16" };
        QTest::newRow("missing trailing fields")
            << "1.2.3.4;m" << QStringList { "1.2.3.4", "m", "", "", "", "" };
        QTest::newRow("empty") << "" << QStringList { "", "", "", "", "", "" };
        QTest::newRow("extra fields ignored")
            << "a;b;c;d;e;7;x;y;" << QStringList { "a", "b", "c", "d", "e", "7" };
    }
    void field()
    {
        QFETCH(QString, line);
        QFETCH(QStringList, fields);
        for (int k = 1; k <= 6; ++k)
            QCOMPARE(AccessList::field(line, k), fields[k - 1]);
    }

    void loadKeepsOrderBlankRowsAndLineEnds()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("ACLIST.ini");
        // CR LF, a blank line, a lone LF, a lone CR, and a last line without an end.
        writeFile(path,
            "10.0.0.0; 255. 0 . 0 . 0 ;yes;yes;/a;8;\r\n\r\n192.168.1.0;m;no;yes;/b;24\n"
            "172.16.0.0;m;yes;no;/c;12;\r1.1.1.1;m;;;/d;32;");
        AccessList list;
        list.appendEntry({ "existing", "m", "yes", "yes", "/z", 1 });
        list.setFilePath(path);
        list.load_ACL();
        QCOMPARE(list.count(), 6); // appended, not replaced
        QCOMPARE(list.entry(1).network, QString("existing"));
        QCOMPARE(list.entry(2).network, QString("10.0.0.0"));
        QCOMPARE(list.entry(2).mask, QString(" 255. 0 . 0 . 0 "));
        QCOMPARE(list.entry(2).prefix, 8);
        QCOMPARE(list.entry(3).network, QString()); // the blank line
        QCOMPARE(list.entry(4).read, QString("no"));
        QCOMPARE(list.entry(4).prefix, 24);
        QCOMPARE(list.entry(5).folder, QString("/c"));
        QCOMPARE(list.entry(6).read, QString());
        QCOMPARE(list.entry(6).prefix, 32);
        // The model shows the columns the window lists, the prefix as the row's tag.
        QCOMPARE(list.headerData(1, Qt::Horizontal).toString(), QString("Subnet Mask"));
        QCOMPARE(list.index(1, 0).data(Qt::UserRole).toInt(), 8);
        QCOMPARE(list.entry(7).network, QString()); // out of range reads empty
    }

    void missingFileLoadsNothing()
    {
        QTemporaryDir dir;
        AccessList list;
        list.setFilePath(dir.filePath("nothing-here.ini"));
        list.load_ACL();
        QCOMPARE(list.count(), 0);
    }

    void saveDropsEmptyNetworksAndRoundTrips()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("ACLIST.ini");
        writeFile(path, "10.1.0.0; 255. 255. 0 . 0 ;yes;no;/srv/lab;16\r\n\r\n;m;yes;yes;/x;3;\r\n");
        AccessList list;
        list.setFilePath(path);
        list.load_ACL();
        QCOMPARE(list.count(), 3);
        list.appendEntry({ "192.168.7.0", maskDisplayForm(24), "no", "yes", "/srv/dev/", 24 });
        list.save_ACL();
        const QByteArray expected = "10.1.0.0; 255. 255. 0 . 0 ;yes;no;/srv/lab;16;\r\n"
                                    "192.168.7.0; 255. 255. 255. 0 ;no;yes;/srv/dev/;24;\r\n";
        QCOMPARE(readFile(path), expected);

        AccessList again;
        again.setFilePath(path);
        again.load_ACL();
        QCOMPARE(again.count(), 2);
        QCOMPARE(again.entry(2).folder, QString("/srv/dev/"));
        QCOMPARE(again.entry(2).prefix, 24);
    }

    void removalReachesFileOnlyWithNextSave()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("ACLIST.ini");
        AccessList list;
        list.setFilePath(path);
        list.appendEntry({ "10.0.0.0", maskDisplayForm(8), "yes", "yes", "/a", 8 });
        list.appendEntry({ "10.1.0.0", maskDisplayForm(16), "yes", "yes", "/b", 16 });
        list.save_ACL();
        list.removeRow(0);
        AccessList restarted;
        restarted.setFilePath(path);
        restarted.load_ACL();
        QCOMPARE(restarted.count(), 2);
    }

    void junkFilesNeverCrash()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("ACLIST.ini");
        QRandomGenerator rng(1234);
        QByteArray junk(200000, '\0');
        for (char &c : junk)
            c = char(rng.bounded(256));
        writeFile(path, junk);
        AccessList list;
        list.setFilePath(path);
        list.load_ACL();
        QVERIFY(list.count() > 0);
        list.save_ACL(); // whatever survives is written back without a crash
        QVERIFY(QFile::exists(path));
    }
};

QTEST_GUILESS_MAIN(TestAccessList)
#include "tst_access_list.moc"
