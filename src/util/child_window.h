#pragma once

#include <QWidget>

class QMdiSubWindow;

// A child window of the main frame that is never destroyed by its close box:
// the close is refused and the window (its MDI frame, when it has one) is
// hidden instead, so its state (lists, access rows, capture text) stays alive.
// After every close request closeRequested() is emitted; the main window uses
// it to re-tile its children.
class ChildWindow : public QWidget
{
    Q_OBJECT
public:
    explicit ChildWindow(QWidget *parent = nullptr);

    // The window table's index of this window, as decimal text.
    QString tag() const { return m_tag; }
    void setTag(const QString &tag) { m_tag = tag; }

    // The MDI frame around this window, or nullptr when shown on its own.
    QMdiSubWindow *mdiFrame() const;

    // When false, a close request really closes (consoles use this).
    void setHideOnClose(bool hide) { m_hideOnClose = hide; }

Q_SIGNALS:
    void closeRequested();

protected:
    void closeEvent(QCloseEvent *event) override;

private:
    QString m_tag;
    bool m_hideOnClose = true;
};
