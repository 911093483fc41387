#pragma once

#include "snmp/snmp_profile.h"

#include <QWidget>

#include <functional>

class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSpinBox;
class QStackedWidget;
class QTreeView;
class RateGraph;
class SnmpMonitor;
class SnmpPoller;

// The "SNMP" tab of a console: version choice, community box, Start and Stop,
// the figures (uptime, CPU, free memory, poll state, interface count) and
// below them either the classic interface list or the v2c/v3 interface table
// with the selected interface's graph.
//
// "v1 (classic)" is the classic monitor unchanged: it owns the console's
// SnmpPoller and only shows what the poller keeps. Its Stop has no action of
// its own: polling ends when a request finds no device address ("No
// connection") or the console closes.
//
// "v2c" and "v3" poll through the console's SnmpMonitor; Stop stops it. v3
// passwords come from SnmpCredentials when Start is pressed. The choices are
// remembered per device (SnmpProfiles) when Start is pressed and come back
// with loadProfile() when the console connects to that device again; they
// and the device's passwords go when the device leaves the connection history.
//
// startClicked() is emitted when Start is pressed, before polling restarts,
// so the console can bring its SNMP tab forward and lay itself out again.
class SnmpPage : public QWidget
{
    Q_OBJECT
public:
    explicit SnmpPage(std::function<QString()> deviceAddress, QWidget *parent = nullptr);

    SnmpPoller *poller() const { return m_poller; }
    SnmpMonitor *monitor() const { return m_monitor; }

    // The choices on screen (host and passwords aside).
    SnmpProfile profile() const;
    void setProfile(const SnmpProfile &profile);
    // Shows the choices remembered for a device, if any.
    void loadProfile(const QString &host);

    // Forgets what the tab kept for a device: its settings and the v3
    // passwords of every user saved for it. Called when the device's last
    // connection history entry drops off.
    static void forgetDevice(const QString &host);
    // Saves the choices for a device; a device connected by name pushes the
    // oldest such device out once there are more of them than history entries.
    static void rememberDevice(const QString &host, const SnmpProfile &profile);

    // What "Export..." writes once its file dialog is answered: the interface
    // table, or the selected interface's history, as CSV to path.
    void exportCsv(bool history, const QString &path);

    // The interface whose history the graph shows, 0 for none.
    int selectedInterface() const { return m_selected; }

Q_SIGNALS:
    void startClicked();

private:
    QLabel *addLabel(const char *name, const QString &text);
    QWidget *buildOptions();
    void versionChosen();
    void start();
    void startMonitor(SnmpTarget target);
    void showGraph();
    void exportCsv(bool history);

    std::function<QString()> m_deviceAddress;
    SnmpPoller *m_poller = nullptr;
    SnmpMonitor *m_monitor = nullptr;
    QLineEdit *m_community = nullptr;
    QTreeView *m_stats = nullptr;
    QComboBox *m_version = nullptr;
    QWidget *m_options = nullptr;
    QWidget *m_v3 = nullptr;
    QLineEdit *m_user = nullptr;
    QComboBox *m_level = nullptr;
    QComboBox *m_auth = nullptr;
    QComboBox *m_priv = nullptr;
    QLineEdit *m_context = nullptr;
    QSpinBox *m_interval = nullptr;
    QSpinBox *m_timeout = nullptr;
    QSpinBox *m_tries = nullptr;
    QStackedWidget *m_views = nullptr;
    QTreeView *m_interfaces = nullptr;
    RateGraph *m_graph = nullptr;
    int m_selected = 0;
    quint64 m_startSerial = 0; // a newer Start cancels a password prompt's outcome
};
