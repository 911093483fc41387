#include "log_routes.h"

#include "logrecv/log_receiver.h"

#include <QPlainTextEdit>
#include <QScrollBar>
#include <QTextCursor>
#include <QTextDocument>

#include <limits>

namespace {

void insertAtEnd(QPlainTextEdit *logbox, const QString &chunk)
{
    // A log view has nothing to undo, and an undo stack growing by one entry
    // per datagram would slow every later insert.
    QTextDocument *document = logbox->document();
    if (document->isUndoRedoEnabled())
        document->setUndoRedoEnabled(false);
    QScrollBar *bar = logbox->verticalScrollBar();
    const bool follow = bar->value() >= bar->maximum();
    QTextCursor cursor(document);
    cursor.movePosition(QTextCursor::End);
    cursor.insertText(chunk);
    if (follow)
        bar->setValue(bar->maximum());
}

} // namespace

namespace tw {
void appendToLogbox(QPlainTextEdit *logbox, const QString &text)
{
    if (logbox)
        insertAtEnd(logbox, text + QStringLiteral("\r\n"));
}
} // namespace tw

LogRoutes::LogRoutes(QObject *parent)
    : QObject(parent)
{ }

void LogRoutes::attach(LogReceiver &receiver)
{
    receiver.setRouter([this](const QString &sender, const QString &text) { return deliver(sender, text); });
    receiver.setFlush([this] { flush(); });
}

void LogRoutes::setConsole(int slot, QPlainTextEdit *logbox, TagOf tagOf)
{
    m_consoles.insert(slot, Entry { logbox, std::move(tagOf), QString() });
}

void LogRoutes::removeConsole(int slot)
{
    m_consoles.remove(slot);
}

LogRoutes::Entry *LogRoutes::entryFor(const QString &sender)
{
    const int last = m_lastSlot ? m_lastSlot() : std::numeric_limits<int>::max();
    for (auto it = m_consoles.begin(); it != m_consoles.end() && it.key() <= last; ++it) {
        Entry &entry = it.value();
        if (entry.logbox && entry.tagOf && entry.tagOf() == sender)
            return &entry;
    }
    return nullptr;
}

QPlainTextEdit *LogRoutes::logboxFor(const QString &sender) const
{
    Entry *entry = const_cast<LogRoutes *>(this)->entryFor(sender);
    return entry ? entry->logbox.data() : nullptr;
}

bool LogRoutes::deliver(const QString &sender, const QString &text)
{
    Entry *entry = entryFor(sender);
    if (!entry)
        return false;
    entry->pending += text;
    entry->pending += QStringLiteral("\r\n");
    if (!m_flushQueued) {
        m_flushQueued = true;
        QMetaObject::invokeMethod(this, &LogRoutes::flush, Qt::QueuedConnection);
    }
    return true;
}

void LogRoutes::flush()
{
    m_flushQueued = false;
    for (Entry &entry : m_consoles) {
        if (entry.pending.isEmpty())
            continue;
        if (entry.logbox)
            insertAtEnd(entry.logbox, entry.pending);
        entry.pending.clear();
    }
}
