#pragma once

#include <QMap>
#include <QPointer>
#include <QString>

#include <functional>

class QPlainTextEdit;

namespace tw {
// Shows one delivered datagram at the end of a log view: the text as received
// plus CR LF, nothing parsed or stamped. Uses a document cursor so the user's
// caret and selection stay put, and follows the end only when the view was
// already scrolled to the bottom.
void appendToLogbox(QPlainTextEdit *logbox, const QString &text);
} // namespace tw

// The consoles' log views in slot order, for the log receiver's router. The app
// registers each console when it opens (slot 3 upwards) and removes it when it
// closes; the tag getter returns the address the console's log view carries
// (its device), read at delivery time so a reconnect needs no update here.
//
//     receiver.setRouter([&routes](const QString &s, const QString &t) { return routes.deliver(s, t); });
class LogRoutes
{
public:
    using TagOf = std::function<QString()>;

    void setConsole(int slot, QPlainTextEdit *logbox, TagOf tagOf);
    void removeConsole(int slot);

    // Appends the text to the first console in slot order whose tag equals the
    // sender; false when none does.
    bool deliver(const QString &sender, const QString &text) const;
    QPlainTextEdit *logboxFor(const QString &sender) const;

private:
    struct Entry
    {
        QPointer<QPlainTextEdit> logbox;
        TagOf tagOf;
    };
    QMap<int, Entry> m_consoles; // ordered by slot
};
