#include "child_window.h"

#include <QCloseEvent>
#include <QMdiSubWindow>

ChildWindow::ChildWindow(QWidget *parent)
    : QWidget(parent)
{
}

QMdiSubWindow *ChildWindow::mdiFrame() const
{
    return qobject_cast<QMdiSubWindow *>(parentWidget());
}

void ChildWindow::closeEvent(QCloseEvent *event)
{
    if (m_hideOnClose) {
        event->ignore();
        if (QMdiSubWindow *frame = mdiFrame())
            frame->hide();
        else
            hide();
    } else {
        event->accept();
    }
    Q_EMIT closeRequested();
}
