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
    const bool atEnd = bar->value() >= bar->maximum();
    QTextCursor cursor(logbox->document());
    cursor.movePosition(QTextCursor::End);
    cursor.insertText(text + QStringLiteral("\r\n"));
    if (atEnd)
        bar->setValue(bar->maximum());
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
