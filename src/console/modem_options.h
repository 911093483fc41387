#pragma once

#include <QDialog>
#include <QPointer>

class ConsoleSession;
class QComboBox;
class QGroupBox;
class QLineEdit;
class QPushButton;

// `ModemOptions`, "Connection Settings": how a console reaches its device.
//
// "Connect With" (`Combo6`) chooses "Serial" (the `SerialFrame` fields are
// enabled), "TCP/IP" (the four octet boxes of `NetFrame`), "SSH" (the same
// boxes) or "History0" to "History5", which fills the network fields from
// the connection history. Beneath the octets, `NetFrame` takes a host name
// instead of them (`HostName`), the port (`PortBox`: the Telnet port for
// TCP/IP, 22 for SSH) and, for SSH, the user name (`UserBox`, remembered).
// No secret is ever typed here: SSH asks for one when the device wants it.
// OK calls ConnectModem, ConnectTCP or ConnectSSH on the console that asked
// (`whoasked`) with the fields' texts, records a network connection in the
// history and closes; Cancel only closes. The dialog validates nothing beyond the octet boxes'
// typing rules: a bad value surfaces in the console as the connection fails.
class ModemOptions : public QDialog
{
    Q_OBJECT
public:
    explicit ModemOptions(QWidget *parent = nullptr);

    void setWhoasked(ConsoleSession *session);
    ConsoleSession *whoasked() const;

    QComboBox *connectWith() const { return m_connectWith; }
    // Combo7, Combo1 to Combo5: port, baud, parity, data bits, stop bits, flow.
    QComboBox *serialField(int comboNumber) const;
    QGroupBox *serialFrame() const { return m_serialFrame; }
    QGroupBox *netFrame() const { return m_netFrame; }
    QLineEdit *octetBox(int index) const { return m_octets[index]; }
    QLineEdit *hostNameBox() const { return m_hostName; }
    QLineEdit *portBox() const { return m_portBox; }
    QLineEdit *userBox() const { return m_userBox; }
    QPushButton *okButton() const { return m_ok; }
    QPushButton *cancelButton() const { return m_cancel; }

    // Fills the network fields from history entry n and selects its kind.
    void showHistory(int n);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void onConnectWith(const QString &choice);
    void onOk();
    void setSerialChosen(bool serial);
    void setNetworkKind(bool ssh, quint16 port);

    QPointer<ConsoleSession> m_whoasked;
    QComboBox *m_connectWith;
    QComboBox *m_port;
    QComboBox *m_baud;
    QComboBox *m_parity;
    QComboBox *m_dataBits;
    QComboBox *m_stopBits;
    QComboBox *m_flow;
    QGroupBox *m_serialFrame;
    QGroupBox *m_netFrame;
    QLineEdit *m_octets[4] = {};
    QLineEdit *m_hostName;
    QLineEdit *m_portBox;
    QLineEdit *m_userBox;
    bool m_ssh = false;
    QPushButton *m_ok;
    QPushButton *m_cancel;
};
