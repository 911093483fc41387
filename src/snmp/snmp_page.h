#pragma once

#include <QWidget>

#include <functional>

class QLabel;
class QLineEdit;
class QPushButton;
class QTreeView;
class SnmpPoller;

// The "SNMP" tab of a console: community box, Start and Stop, the figures
// (uptime, CPU, free memory, poll state, interface count) and the interface
// list. It owns the console's SnmpPoller and only shows what the poller keeps.
//
// startClicked() is emitted when Start is pressed, before polling restarts,
// so the console can bring its SNMP tab forward and lay itself out again.
// Stop has no action of its own: polling ends when a request finds no device
// address ("No connection") or the console closes.
class SnmpPage : public QWidget
{
    Q_OBJECT
public:
    explicit SnmpPage(std::function<QString()> deviceAddress, QWidget *parent = nullptr);

    SnmpPoller *poller() const { return m_poller; }

Q_SIGNALS:
    void startClicked();

private:
    QLabel *addLabel(const char *name, const QString &text);

    SnmpPoller *m_poller = nullptr;
    QLineEdit *m_community = nullptr;
    QTreeView *m_stats = nullptr;
};
