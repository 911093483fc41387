#pragma once

#include <QMessageBox>
#include <QString>
#include <functional>

// Every message box of the program goes through here: it is titled "Tarnwick"
// and closed with OK. Tests install a hook that records the text instead of
// opening a modal box, so no test ever blocks on one.
namespace tw {

using MessageBoxHook = std::function<void(const QString &text, QMessageBox::Icon icon)>;

void messageBox(const QString &text, QMessageBox::Icon icon = QMessageBox::NoIcon);

// Replaces the real box; pass an empty hook to restore it.
void setMessageBoxHook(MessageBoxHook hook);

} // namespace tw
