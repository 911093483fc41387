#include "log_routes.h"

#include <QPlainTextEdit>
#include <QScrollBar>
#include <QTextCursor>
#include <QTextDocument>

namespace tw {

void appendToLogbox(QPlainTextEdit *logbox, const QString &text)
{
    if (!logbox)
        return;
    QScrollBar *bar = logbox->verticalScrollBar();
    const bool follow = bar->value() >= bar->maximum();
    QTextCursor cursor(logbox->document());
    cursor.movePosition(QTextCursor::End);
    cursor.insertText(text + QStringLiteral("\r\n"));
    // Scrolling lays out the lines it brings into view; in a flood, do it
    // once per turn of the event loop rather than once per line.
    static const char pending[] = "_tw_followPending";
    if (follow && !logbox->property(pending).toBool()) {
        logbox->setProperty(pending, true);
        QMetaObject::invokeMethod(
            logbox,
            [logbox] {
                logbox->setProperty(pending, false);
                logbox->verticalScrollBar()->setValue(logbox->verticalScrollBar()->maximum());
            },
            Qt::QueuedConnection);
    }
}

} // namespace tw

void LogRoutes::setConsole(int slot, QPlainTextEdit *logbox, TagOf tagOf)
{
    m_consoles.insert(slot, Entry { logbox, std::move(tagOf) });
}

void LogRoutes::removeConsole(int slot)
{
    m_consoles.remove(slot);
}

QPlainTextEdit *LogRoutes::logboxFor(const QString &sender) const
{
    for (const Entry &entry : m_consoles) {
        if (entry.logbox && entry.tagOf && entry.tagOf() == sender)
            return entry.logbox;
    }
    return nullptr;
}

bool LogRoutes::deliver(const QString &sender, const QString &text) const
{
    QPlainTextEdit *logbox = logboxFor(sender);
    if (!logbox)
        return false;
    tw::appendToLogbox(logbox, text);
    return true;
}
