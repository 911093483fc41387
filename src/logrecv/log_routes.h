#pragma once

#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>

class LogReceiver;
class QPlainTextEdit;

namespace tw {
// Shows one delivered datagram at the end of a log view: the text as received
// plus CR LF, nothing parsed or stamped. Uses a document cursor so the user's
// caret and selection stay put, and follows the end only when the view was
// already scrolled to the bottom.
void appendToLogbox(QPlainTextEdit *logbox, const QString &text);
} // namespace tw

// The consoles' log views in slot order, the log receiver's router. The app
// registers each console when it opens (slot 3 upwards) and removes it when it
// closes; the tag getter returns the address the console's log view carries
// (its device), read at delivery time so a reconnect needs no update here.
//
// deliver() queues the text for the first console in slot order, from slot 3
// up to the window count the app gives with setLastSlot(), whose tag equals
// the sender; a console left standing above the count after another one
// closed gets no log lines until the count reaches it again. flush() shows
// everything queued, one insert per view. attach() wires both into a
// receiver, which flushes after routing each batch of datagrams and before
// writing their records, so every line is in its view before it is in a file,
// while a flood costs one view insert per batch instead of one per datagram.
// Text never waits beyond the current turn of the event loop: a flush is also
// queued whenever something is pending.
class LogRoutes : public QObject
{
    Q_OBJECT
public:
    using TagOf = std::function<QString()>;

    explicit LogRoutes(QObject *parent = nullptr);

    void attach(LogReceiver &receiver);

    // The highest slot searched (the window count); unlimited when unset.
    void setLastSlot(std::function<int()> lastSlot) { m_lastSlot = std::move(lastSlot); }
    void setConsole(int slot, QPlainTextEdit *logbox, TagOf tagOf);
    void removeConsole(int slot);

    // False when no console carries the sender's address.
    bool deliver(const QString &sender, const QString &text);
    void flush();
    QPlainTextEdit *logboxFor(const QString &sender) const;

private:
    struct Entry
    {
        QPointer<QPlainTextEdit> logbox;
        TagOf tagOf;
        QString pending;
    };
    Entry *entryFor(const QString &sender);

    QMap<int, Entry> m_consoles; // ordered by slot
    std::function<int()> m_lastSlot;
    bool m_flushQueued = false;
};
