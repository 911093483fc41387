#include "util/cls_resolve.h"
#include "util/message_box.h"

#include <QTest>

// Name resolution against the machine's own resolver: /etc/hosts always maps
// localhost, so both directions have an answer without any network. Text that
// is not an address and an address without a name are reported; a name that
// does not resolve is not.
class TestResolve : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void resolve()
    {
        QStringList messages;
        tw::setMessageBoxHook([&messages](const QString &text, QMessageBox::Icon) { messages << text; });
        const QString invalid = QStringLiteral("Invalid IP address");
        for (const auto &[toName, input, result, message] :
            std::initializer_list<std::tuple<bool, QString, QString, QString>> {
                { true, "127.0.0.1", "localhost", "" }, { false, "localhost", "127.0.0.1", "" },
                { true, "255.255.255.255", "", invalid }, { true, "router1", "", invalid },
                { true, "", "", invalid }, { true, "10.1.1.256", "", invalid },
                { true, QStringLiteral("127.0.0.1") + QChar(0) + "x", "", invalid },
                // A documentation-only address: nothing may be registered for it.
                { true, "192.0.2.123", "", "Call to gethostbyaddr failed." },
                { false, "no-such-host.invalid", "", "" }, { false, "", "", "" },
                { false, QString(300, QChar('a')), "", "" } }) {
            messages.clear();
            const clsResolve resolve;
            QCOMPARE(toName ? resolve.GetHostNameFromIP(input) : resolve.GetIPFromHostName(input), result);
            QVERIFY2(
                messages.join('|') == message, qPrintable(input + QStringLiteral(": ") + messages.join('|')));
        }
        tw::setMessageBoxHook({});
    }
};

QTEST_GUILESS_MAIN(TestResolve)
#include "tst_resolve.moc"
