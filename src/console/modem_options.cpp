#include "modem_options.h"

#include "console/connection_history.h"
#include "console/console_session.h"
#include "console/ssh_config.h"

#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QIntValidator>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSerialPortInfo>
#include <QSettings>
#include <QVBoxLayout>

namespace {
constexpr int numberedPorts = 16;
const QString lastUserKey = QStringLiteral("Settings/SshUser");

QComboBox *makeCombo(const char *name, const QStringList &items, const QString &current, QWidget *parent)
{
    auto *combo = new QComboBox(parent);
    combo->setObjectName(QLatin1String(name));
    combo->setEditable(true); // any value may be typed, "None" for the flow included
    combo->addItems(items);
    combo->setCurrentText(current);
    return combo;
}

QLabel *makeLabel(const char *name, const QString &text, QWidget *parent)
{
    auto *label = new QLabel(text, parent);
    label->setObjectName(QLatin1String(name));
    return label;
}
} // namespace

ModemOptions::ModemOptions(QWidget *parent)
    : QDialog(parent)
{
    setObjectName(QStringLiteral("ModemOptions"));
    setWindowTitle(QStringLiteral("Connection Settings"));

    m_connectWith = new QComboBox(this);
    m_connectWith->setObjectName(QStringLiteral("Combo6"));
    m_connectWith->addItems({ QStringLiteral("Serial"), QStringLiteral("TCP/IP"), QStringLiteral("SSH") });
    for (int n = 0; n < ConnectionHistory::entryCount; ++n)
        m_connectWith->addItem(QStringLiteral("History%1").arg(n));
    auto *connectRow = new QHBoxLayout;
    connectRow->addWidget(makeLabel("Label6", QStringLiteral("Connect With"), this));
    connectRow->addWidget(m_connectWith, 1);

    m_serialFrame = new QGroupBox(QStringLiteral("Serial"), this);
    m_serialFrame->setObjectName(QStringLiteral("SerialFrame"));
    QStringList ports;
    for (int i = 1; i <= numberedPorts; ++i)
        ports << QString::number(i);
    // After the numbers, the ports this machine actually has (USB adapters).
    for (const QSerialPortInfo &info : QSerialPortInfo::availablePorts())
        ports << info.portName();
    m_port = makeCombo("Combo7", ports, QStringLiteral("1"), m_serialFrame);
    m_baud = makeCombo("Combo1",
        { "110", "300", "1200", "2400", "4800", "9600", "19200", "38400", "57600", "115200", "230400",
            "460800", "921600" },
        QStringLiteral("9600"), m_serialFrame);
    m_parity = makeCombo(
        "Combo2", { "None", "Even", "Odd", "Mark", "Space" }, QStringLiteral("None"), m_serialFrame);
    m_dataBits = makeCombo("Combo3", { "5", "6", "7", "8" }, QStringLiteral("8"), m_serialFrame);
    m_stopBits = makeCombo("Combo4", { "1", "1.5", "2" }, QStringLiteral("1"), m_serialFrame);
    m_flow = makeCombo(
        "Combo5", { "Hardware", "Software", "Xon/Xoff" }, QStringLiteral("Xon/Xoff"), m_serialFrame);
    auto *serialForm = new QFormLayout(m_serialFrame);
    serialForm->addRow(makeLabel("Label7", QStringLiteral("Serial Port"), m_serialFrame), m_port);
    serialForm->addRow(makeLabel("Label1", QStringLiteral("BAUD"), m_serialFrame), m_baud);
    serialForm->addRow(makeLabel("Label2", QStringLiteral("Parity"), m_serialFrame), m_parity);
    serialForm->addRow(makeLabel("Label3", QStringLiteral("Data Bits"), m_serialFrame), m_dataBits);
    serialForm->addRow(makeLabel("Label4", QStringLiteral("Stop Bits"), m_serialFrame), m_stopBits);
    serialForm->addRow(makeLabel("Label5", QStringLiteral("Flow Control"), m_serialFrame), m_flow);

    m_netFrame = new QGroupBox(QStringLiteral("TCP/IP"), this);
    m_netFrame->setObjectName(QStringLiteral("NetFrame"));
    auto *netLayout = new QVBoxLayout(m_netFrame);
    auto *octetRow = new QHBoxLayout;
    netLayout->addLayout(octetRow);
    for (int i = 0; i < 4; ++i) {
        if (i > 0) {
            auto *dot = new QLabel(QStringLiteral("."), m_netFrame);
            dot->setObjectName(QStringLiteral("Text2_%1").arg(i - 1));
            octetRow->addWidget(dot);
        }
        m_octets[i] = new QLineEdit(m_netFrame);
        m_octets[i]->setObjectName(QStringLiteral("Text1_%1").arg(i));
        m_octets[i]->setMaxLength(3);
        m_octets[i]->installEventFilter(this);
        QLineEdit *box = m_octets[i];
        connect(box, &QLineEdit::textChanged, box, [box](const QString &text) {
            if (text.size() > 1 && text.startsWith(QLatin1Char('0')))
                box->setText(text.mid(1));
        });
        octetRow->addWidget(m_octets[i]);
    }
    m_hostName = new QLineEdit(m_netFrame);
    m_hostName->setObjectName(QStringLiteral("HostName"));
    m_hostName->setPlaceholderText(QStringLiteral("instead of the address"));
    m_portBox = new QLineEdit(m_netFrame);
    m_portBox->setObjectName(QStringLiteral("PortBox"));
    m_portBox->setValidator(new QIntValidator(1, 65535, m_portBox));
    m_userBox = new QLineEdit(m_netFrame);
    m_userBox->setObjectName(QStringLiteral("UserBox"));
    m_userBox->setText(
        QSettings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick")).value(lastUserKey).toString());
    auto *netForm = new QFormLayout;
    netForm->addRow(makeLabel("LabelHost", QStringLiteral("Host Name"), m_netFrame), m_hostName);
    netForm->addRow(makeLabel("LabelPort", QStringLiteral("Port"), m_netFrame), m_portBox);
    netForm->addRow(makeLabel("LabelUser", QStringLiteral("User"), m_netFrame), m_userBox);
    netLayout->addLayout(netForm);

    m_ok = new QPushButton(QStringLiteral("OK"), this);
    m_ok->setObjectName(QStringLiteral("Command1"));
    m_ok->setDefault(true);
    m_cancel = new QPushButton(QStringLiteral("Cancel"), this);
    m_cancel->setObjectName(QStringLiteral("Command2"));
    auto *buttons = new QHBoxLayout;
    buttons->addStretch(1);
    buttons->addWidget(m_ok);
    buttons->addWidget(m_cancel);

    auto *layout = new QVBoxLayout(this);
    layout->addLayout(connectRow);
    layout->addWidget(m_serialFrame);
    layout->addWidget(m_netFrame);
    layout->addLayout(buttons);

    setSerialChosen(true);
    setNetworkKind(false, 0);
    connect(m_connectWith, &QComboBox::textActivated, this, &ModemOptions::onConnectWith);
    connect(m_ok, &QPushButton::clicked, this, &ModemOptions::onOk);
    connect(m_cancel, &QPushButton::clicked, this, &QDialog::reject);
}

void ModemOptions::setWhoasked(ConsoleSession *session)
{
    m_whoasked = session;
}

ConsoleSession *ModemOptions::whoasked() const
{
    return m_whoasked;
}

QComboBox *ModemOptions::serialField(int comboNumber) const
{
    switch (comboNumber) {
    case 7:
        return m_port;
    case 1:
        return m_baud;
    case 2:
        return m_parity;
    case 3:
        return m_dataBits;
    case 4:
        return m_stopBits;
    case 5:
        return m_flow;
    default:
        return nullptr;
    }
}

void ModemOptions::setSerialChosen(bool serial)
{
    m_serialFrame->setEnabled(serial);
    m_netFrame->setEnabled(!serial);
}

void ModemOptions::setNetworkKind(bool ssh, quint16 port)
{
    m_ssh = ssh;
    m_portBox->setText(QString::number(ConnectTarget { ssh ? QStringLiteral("SSH") : QStringLiteral("TCP/IP"),
        {}, port, {} }.effectivePort()));
    m_userBox->setEnabled(ssh);
}

void ModemOptions::onConnectWith(const QString &choice)
{
    if (choice == QLatin1String("TCP/IP") || choice == QLatin1String("SSH")) {
        setSerialChosen(false);
        setNetworkKind(choice == QLatin1String("SSH"), 0);
    } else if (choice == QLatin1String("Serial"))
        setSerialChosen(true);
    else if (choice.left(7) == QLatin1String("History") && choice.size() > 7)
        showHistory(choice.at(7).digitValue());
}

void ModemOptions::showHistory(int n)
{
    if (n < 0)
        n = 0; // a non-digit reads as 0
    const QStringList octets = ConnectionHistory::entry(n);
    for (int i = 0; i < 4; ++i)
        m_octets[i]->setText(octets.value(i));
    m_hostName->clear();
    const ConnectTarget held = ConnectionHistory::target(n);
    setNetworkKind(held.isSsh(), held.port);
    if (held.isSsh())
        m_userBox->setText(held.user);
    setSerialChosen(false);
}

void ModemOptions::onOk()
{
    if (m_whoasked) {
        if (m_serialFrame->isEnabled()) {
            m_whoasked->ConnectModem(m_port->currentText(), m_baud->currentText(), m_parity->currentText(),
                m_dataBits->currentText(), m_stopBits->currentText(), m_flow->currentText());
        } else {
            QStringList parts;
            for (QLineEdit *box : m_octets)
                parts << box->text();
            ConnectTarget target;
            target.kind = m_ssh ? QStringLiteral("SSH") : QStringLiteral("TCP/IP");
            const QString name = m_hostName->text().trimmed();
            target.host = name.isEmpty() ? parts.join(QLatin1Char('.')) : name;
            // The kind's default port is left to the kind (and, for SSH, to
            // ~/.ssh/config), so a plain TCP/IP connection stays the one
            // the dialog always made.
            const quint16 port = quint16(m_portBox->text().toUInt());
            target.port = port == target.effectivePort() ? 0 : port;
            if (m_ssh) {
                target.user = m_userBox->text().trimmed();
                QSettings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"))
                    .setValue(lastUserKey, target.user);
                // The remembered user fills the box; a User in ~/.ssh/config
                // for the host wins over it, unless the user typed a name.
                if (!m_userBox->isModified() && SshConfig::forHost(target.host).has(QStringLiteral("user")))
                    target.user.clear();
            }
            connectRemembered(m_whoasked, target);
        }
    }
    accept();
}

bool ModemOptions::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() != QEvent::KeyPress)
        return QDialog::eventFilter(watched, event);
    const int index
        = int(std::find(std::begin(m_octets), std::end(m_octets), watched) - std::begin(m_octets));
    if (index >= 4)
        return QDialog::eventFilter(watched, event);
    auto *key = static_cast<QKeyEvent *>(event);
    // The dot is typed to move on to the next octet, never into a box.
    if (key->text() == QLatin1String(".")) {
        if (index < 3)
            m_octets[index + 1]->setFocus();
        return true;
    }
    if (key->key() == Qt::Key_Backspace && m_octets[index]->text().isEmpty() && index > 0) {
        m_octets[index - 1]->setFocus();
        return true;
    }
    return QDialog::eventFilter(watched, event);
}
