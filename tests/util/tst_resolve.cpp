#include "util/cls_resolve.h"
#include "util/message_box.h"

#include <QTest>

// Name resolution. The system's resolver answers for localhost from /etc/hosts in both directions,
// without any query leaving the machine; the other names come from a hosts table put in its place.
// Text that is not an address and an address without a name are reported; a name that does not
// resolve is not.
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
                { true, "127.0.0.7", "router7.lab", "" }, { false, "router7.lab", "127.0.0.7", "" },
                { true, "0177.0.0.7", "router7.lab", "" }, // the octal form users have always typed
                { true, "255.255.255.255", "", invalid }, { true, "router1", "", invalid },
                { true, "", "", invalid }, { true, "127.0.0.256", "", invalid },
                { true, QStringLiteral("127.0.0.1") + QChar(0) + "x", "", invalid },
                { true, "127.0.0.123", "", "Call to gethostbyaddr failed." },
                { false, "no-such-host.lab", "", "" }, { false, "", "", "" },
                { false, QString(300, QChar('a')), "", "" } }) {
            // localhost goes to the system's resolver, everything else to the table.
            const bool system = input == QLatin1String("127.0.0.1") || input == QLatin1String("localhost");
            clsResolve::setLookup(system ? clsResolve::Lookup {} : hostsTable());
            messages.clear();
            const clsResolve resolve;
            QCOMPARE(toName ? resolve.GetHostNameFromIP(input) : resolve.GetIPFromHostName(input), result);
            QVERIFY2(
                messages.join('|') == message, qPrintable(input + QStringLiteral(": ") + messages.join('|')));
        }
        clsResolve::setLookup({});
        tw::setMessageBoxHook({});
    }

private:
    static clsResolve::Lookup hostsTable()
    {
        static const QMap<QString, QString> hosts { { "127.0.0.7", "router7.lab" } };
        return { [](const QString &dotted) {
                    return hosts.contains(dotted) ? std::optional(hosts[dotted]) : std::nullopt;
                },
            [](const QByteArray &name) {
                const QString address = hosts.key(QString::fromLatin1(name));
                return address.isEmpty() ? std::nullopt : std::optional(address);
            } };
    }
};

QTEST_GUILESS_MAIN(TestResolve)
#include "tst_resolve.moc"
