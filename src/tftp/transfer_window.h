#pragma once

#include "util/child_window.h"

class QMenuBar;
class ReportView;
class TransferMonitor;

// The "Transfer" window: shows the monitor's transfer list (ListView1) above
// its socket table (ListView2). It holds no logic: the TFTP engine writes the
// models. "Clear Old Transfers" is forwarded as a signal, because only the
// engine knows which rows running transfers still write to.
class TransferWindow : public ChildWindow
{
    Q_OBJECT
public:
    explicit TransferWindow(TransferMonitor *monitor, QWidget *parent = nullptr);

    ReportView *transferList() const { return m_transferList; }
    ReportView *socketTable() const { return m_socketTable; }

    // Shows the profile without emitting standardProfileToggled.
    void setStandardProfile(bool on);

Q_SIGNALS:
    void clearOldTransfersRequested();
    // The user checked or unchecked "Standard TFTP".
    void standardProfileToggled(bool on);
    // "HTTP Server...": the user wants to set the HTTP port or switch serving on or off.
    void httpServerRequested();

protected:
    void resizeEvent(QResizeEvent *event) override;

private:
    static constexpr int minimumDataWidth = 200; // "Data sent/Received" below this: all columns share
    void fitTransferColumns();

    QMenuBar *m_menuBar;
    QAction *m_standard;
    ReportView *m_transferList;
    ReportView *m_socketTable;
};
