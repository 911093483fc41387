#include "message_box.h"

#include <QApplication>

namespace tw {

namespace {
MessageBoxHook &hook()
{
    static MessageBoxHook instance;
    return instance;
}
} // namespace

void messageBox(const QString &text, QMessageBox::Icon icon)
{
    if (hook()) {
        hook()(text, icon);
        return;
    }
    QMessageBox box(icon, QStringLiteral("Tarnwick"), text, QMessageBox::Ok, QApplication::activeWindow());
    box.exec();
}

void setMessageBoxHook(MessageBoxHook newHook)
{
    hook() = std::move(newHook);
}

} // namespace tw
