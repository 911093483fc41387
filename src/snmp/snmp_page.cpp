#include "snmp/snmp_page.h"

#include "console/connection_history.h"
#include "snmp/rate_graph.h"
#include "snmp/snmp_credentials.h"
#include "snmp/snmp_monitor.h"
#include "snmp/snmp_poller.h"
#include "util/message_box.h"
#include "util/twips.h"

#include <QComboBox>
#include <QDateTime>
#include <QFile>
#include <QFileDialog>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPointer>
#include <QPushButton>
#include <QSpinBox>
#include <QSplitter>
#include <QStackedWidget>
#include <QTreeView>
#include <QVBoxLayout>

#include <mutex>

SnmpPage::SnmpPage(std::function<QString()> deviceAddress, QWidget *parent)
    : QWidget(parent)
    , m_deviceAddress(deviceAddress)
    , m_poller(new SnmpPoller(deviceAddress, this))
    , m_monitor(new SnmpMonitor(deviceAddress, this))
{
    setObjectName(QStringLiteral("SnmpPage"));
    static std::once_flag followHistory;
    std::call_once(followHistory, [] { ConnectionHistory::onHostForgotten(&SnmpPage::forgetDevice); });

    m_community = new QLineEdit(QStringLiteral("comstr"), this);
    m_community->setObjectName(QStringLiteral("ComString"));
    auto *start = new QPushButton(tr("Start"), this);
    start->setObjectName(QStringLiteral("SNMPStart"));
    auto *stop = new QPushButton(tr("Stop"), this);
    stop->setObjectName(QStringLiteral("SNMPStop"));
    m_version = new QComboBox(this);
    m_version->setObjectName(QStringLiteral("SnmpVersion"));
    m_version->addItems({ tr("v1 (classic)"), tr("v2c"), tr("v3") });

    auto *grid = new QGridLayout;
    grid->addWidget(addLabel("Label2", tr("String")), 0, 0);
    grid->addWidget(m_community, 0, 1);
    auto *buttons = new QHBoxLayout;
    buttons->addWidget(m_version);
    buttons->addWidget(start);
    buttons->addWidget(stop);
    buttons->addStretch();
    grid->addLayout(buttons, 0, 2, 1, 2);
    grid->addWidget(addLabel("Uptime", tr("Uptime")), 1, 0);
    grid->addWidget(addLabel("Label3", QString()), 1, 1);
    grid->addWidget(addLabel("CPU", tr("CPU %")), 1, 2);
    grid->addWidget(addLabel("Label4", QString()), 1, 3);
    grid->addWidget(addLabel("Label1", tr("Free Memory")), 2, 0);
    grid->addWidget(addLabel("Label5", QString()), 2, 1);
    grid->addWidget(addLabel("Label6", tr("Next Update")), 2, 2);
    grid->addWidget(addLabel("Label7", QString()), 2, 3);
    grid->addWidget(addLabel("Label8", tr("Interfaces")), 3, 0);
    grid->addWidget(addLabel("Label9", QString()), 3, 1);
    grid->setColumnStretch(1, 1);
    grid->setColumnStretch(3, 1);

    // The list sits 2100 twips lower than the page and 150 narrower: the rest
    // is the block of controls above it and the margins.
    const int side = tw::twips(75);
    auto *controls = new QWidget(this);
    controls->setLayout(grid);
    grid->setContentsMargins(0, 0, 0, 0);
    controls->setFixedHeight(tw::twips(2100) - 3 * side);

    m_stats = new QTreeView(this);
    m_stats->setObjectName(QStringLiteral("snmpstats"));
    m_stats->setModel(m_poller->statistics());
    m_stats->setRootIsDecorated(false);
    m_stats->setUniformRowHeights(true);
    m_stats->setAlternatingRowColors(true);
    m_stats->header()->setDefaultSectionSize(90);
    m_stats->header()->resizeSection(4, 165); // room for a whole MAC address

    m_interfaces = new QTreeView(this);
    m_interfaces->setObjectName(QStringLiteral("snmpInterfaces"));
    m_interfaces->setModel(m_monitor->table());
    m_interfaces->setRootIsDecorated(false);
    m_interfaces->setUniformRowHeights(true);
    m_interfaces->setAlternatingRowColors(true);
    m_interfaces->header()->setDefaultSectionSize(80);
    m_interfaces->header()->resizeSection(SnmpMonitor::IndexColumn, 50);
    m_interfaces->header()->resizeSection(SnmpMonitor::NameColumn, 120);
    m_interfaces->header()->resizeSection(SnmpMonitor::AliasColumn, 120);
    m_graph = new RateGraph(this);
    auto *split = new QSplitter(Qt::Vertical, this);
    split->addWidget(m_interfaces);
    split->addWidget(m_graph);
    split->setStretchFactor(0, 1);
    split->setStretchFactor(1, 1);

    m_views = new QStackedWidget(this);
    m_views->addWidget(m_stats);
    m_views->addWidget(split);

    m_options = buildOptions();

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(side, side, side, side);
    layout->setSpacing(side);
    layout->addWidget(controls);
    layout->addWidget(m_options);
    layout->addWidget(m_views, 1);

    const auto bind = [this](const char *name, void (SnmpPoller::*signal)(const QString &),
                          void (SnmpMonitor::*monitorSignal)(const QString &)) {
        QLabel *label = findChild<QLabel *>(QLatin1String(name));
        connect(m_poller, signal, label, &QLabel::setText);
        connect(m_monitor, monitorSignal, label, &QLabel::setText);
    };
    bind("Label3", &SnmpPoller::uptimeTextChanged, &SnmpMonitor::uptimeTextChanged);
    bind("Label4", &SnmpPoller::cpuTextChanged, &SnmpMonitor::cpuTextChanged);
    bind("Label5", &SnmpPoller::freeMemoryTextChanged, &SnmpMonitor::freeMemoryTextChanged);
    bind("Label7", &SnmpPoller::stateChanged, &SnmpMonitor::stateChanged);
    bind("Label9", &SnmpPoller::interfacesTextChanged, &SnmpMonitor::interfacesTextChanged);

    m_poller->setCommunity(m_community->text());
    connect(m_community, &QLineEdit::textChanged, m_poller, &SnmpPoller::setCommunity);
    connect(start, &QPushButton::clicked, this, &SnmpPage::start);
    connect(stop, &QPushButton::clicked, this, [this] {
        if (m_version->currentIndex() > 0)
            m_monitor->stop();
    });
    connect(m_version, &QComboBox::currentIndexChanged, this, &SnmpPage::versionChosen);
    connect(m_poller, &SnmpPoller::noConnection, this, [] { tw::messageBox(tr("No connection")); });
    connect(m_monitor, &SnmpMonitor::noConnection, this, [] { tw::messageBox(tr("No connection")); });
    connect(m_interfaces->selectionModel(), &QItemSelectionModel::currentRowChanged, this,
        [this](const QModelIndex &current) {
            m_selected = current.isValid() ? m_monitor->interfaceAt(current.row()) : 0;
            showGraph();
        });
    connect(m_monitor, &SnmpMonitor::polled, this, [this](bool ok) {
        // A password the agent rejected is not offered again: the next Start asks anew.
        const CredentialFault fault = credentialFault(m_monitor->lastError());
        if (!ok && fault != CredentialFault::None) {
            const SnmpTarget &t = m_monitor->target();
            SnmpCredentials::forget(SnmpCredentials::key(
                m_deviceAddress().trimmed(), t.user, fault == CredentialFault::Auth ? "auth" : "priv"));
            m_monitor->stop();
        }
        showGraph();
    });
    versionChosen();
}

QWidget *SnmpPage::buildOptions()
{
    auto *options = new QWidget(this);
    auto *rows = new QVBoxLayout(options);
    rows->setContentsMargins(0, 0, 0, 0);

    const auto spin = [this](const char *name, int low, int high, int value, const QString &suffix) {
        auto *box = new QSpinBox(this);
        box->setObjectName(QLatin1String(name));
        box->setRange(low, high);
        box->setValue(value);
        box->setSuffix(suffix);
        return box;
    };
    m_interval = spin("SnmpInterval", SnmpMonitor::minimumIntervalMs / 1000, 3600, 5, tr(" s"));
    m_timeout = spin("SnmpTimeout", 1, 60, 1, tr(" s"));
    m_tries = spin("SnmpTries", 1, 10, 3, QString());
    auto *exportButton = new QPushButton(tr("Export..."), this);
    exportButton->setObjectName(QStringLiteral("SnmpExport"));
    auto *menu = new QMenu(exportButton);
    menu->addAction(tr("Interface table..."), this, [this] { exportCsv(false); });
    menu->addAction(tr("Selected interface's history..."), this, [this] { exportCsv(true); });
    exportButton->setMenu(menu);
    auto *poll = new QHBoxLayout;
    poll->addWidget(new QLabel(tr("Poll every"), this));
    poll->addWidget(m_interval);
    poll->addWidget(new QLabel(tr("Time-out"), this));
    poll->addWidget(m_timeout);
    poll->addWidget(new QLabel(tr("Tries"), this));
    poll->addWidget(m_tries);
    poll->addStretch();
    poll->addWidget(exportButton);
    rows->addLayout(poll);

    m_v3 = new QWidget(this);
    auto *v3 = new QHBoxLayout(m_v3);
    v3->setContentsMargins(0, 0, 0, 0);
    m_user = new QLineEdit(this);
    m_user->setObjectName(QStringLiteral("SnmpUser"));
    m_level = new QComboBox(this);
    m_level->setObjectName(QStringLiteral("SnmpLevel"));
    m_level->addItems(
        { QStringLiteral("noAuthNoPriv"), QStringLiteral("authNoPriv"), QStringLiteral("authPriv") });
    m_level->setCurrentIndex(2);
    // In the order of SnmpTarget::Auth and SnmpTarget::Priv.
    m_auth = new QComboBox(this);
    m_auth->setObjectName(QStringLiteral("SnmpAuth"));
    m_auth->addItems({ tr("MD5 (old devices)"), QStringLiteral("SHA-1"), QStringLiteral("SHA-224"),
        QStringLiteral("SHA-256"), QStringLiteral("SHA-384"), QStringLiteral("SHA-512") });
    m_auth->setCurrentIndex(1);
    m_priv = new QComboBox(this);
    m_priv->setObjectName(QStringLiteral("SnmpPriv"));
    m_priv->addItems({ tr("DES (old devices)"), QStringLiteral("AES-128"), QStringLiteral("AES-192"),
        QStringLiteral("AES-256") });
    m_priv->setCurrentIndex(1);
    m_context = new QLineEdit(this);
    m_context->setObjectName(QStringLiteral("SnmpContext"));
    for (auto [label, widget] :
        { std::pair<QString, QWidget *> { tr("User"), m_user }, { tr("Level"), m_level },
            { tr("Auth"), m_auth }, { tr("Privacy"), m_priv }, { tr("Context"), m_context } }) {
        v3->addWidget(new QLabel(label, this));
        v3->addWidget(widget, widget == m_user || widget == m_context ? 1 : 0);
    }
    connect(m_level, &QComboBox::currentIndexChanged, this, [this](int level) {
        m_auth->setEnabled(level >= 1);
        m_priv->setEnabled(level == 2);
    });
    rows->addWidget(m_v3);
    return options;
}

QLabel *SnmpPage::addLabel(const char *name, const QString &text)
{
    auto *label = new QLabel(text, this);
    label->setObjectName(QLatin1String(name));
    return label;
}

void SnmpPage::versionChosen()
{
    const int version = m_version->currentIndex() + 1;
    m_options->setVisible(version > 1);
    m_v3->setVisible(version == 3);
    m_community->setEnabled(version < 3);
    m_views->setCurrentIndex(version > 1 ? 1 : 0);
}

SnmpProfile SnmpPage::profile() const
{
    SnmpProfile p;
    p.version = m_version->currentIndex() + 1;
    p.intervalMs = m_interval->value() * 1000;
    SnmpTarget &t = p.target;
    t.version = p.version == 3 ? 3 : 2;
    t.community = m_community->text();
    t.user = m_user->text().trimmed();
    t.level = SnmpTarget::Level(m_level->currentIndex());
    t.auth = SnmpTarget::Auth(m_auth->currentIndex());
    t.priv = SnmpTarget::Priv(m_priv->currentIndex());
    t.context = m_context->text();
    t.timeoutMs = m_timeout->value() * 1000;
    t.tries = m_tries->value();
    return p;
}

void SnmpPage::setProfile(const SnmpProfile &p)
{
    m_version->setCurrentIndex(qBound(1, p.version, 3) - 1);
    if (p.version == 1)
        return; // the classic tab keeps its own community box as it always has
    const SnmpTarget &t = p.target;
    m_community->setText(t.community);
    m_user->setText(t.user);
    m_level->setCurrentIndex(int(t.level));
    m_auth->setCurrentIndex(int(t.auth));
    m_priv->setCurrentIndex(int(t.priv));
    m_context->setText(t.context);
    m_interval->setValue(p.intervalMs / 1000);
    m_timeout->setValue(qMax(1, t.timeoutMs / 1000));
    m_tries->setValue(t.tries);
}

void SnmpPage::forgetDevice(const QString &host)
{
    for (const QString &user : SnmpProfiles::remove(host))
        for (const char *which : { "auth", "priv" })
            SnmpCredentials::forget(SnmpCredentials::key(host, user, QLatin1String(which)));
}

void SnmpPage::rememberDevice(const QString &host, const SnmpProfile &profile)
{
    SnmpProfiles::save(host, profile);
    if (!ConnectionHistory::holds(host))
        for (const QString &gone : SnmpProfiles::rememberName(host, ConnectionHistory::entryCount))
            forgetDevice(gone);
}

void SnmpPage::loadProfile(const QString &host)
{
    if (const std::optional<SnmpProfile> p = SnmpProfiles::load(host))
        setProfile(*p);
}

void SnmpPage::start()
{
    Q_EMIT startClicked();
    ++m_startSerial;
    const QString host = m_deviceAddress().trimmed();
    const SnmpProfile p = profile();
    if (p.version == 1) {
        m_monitor->stop();
        if (!host.isEmpty()) {
            // Only the choice is remembered: the rest of the device's v2c/v3 settings stay for later.
            SnmpProfile kept = SnmpProfiles::load(host).value_or(SnmpProfile());
            kept.version = 1;
            rememberDevice(host, kept);
        }
        m_poller->start();
        return;
    }
    m_poller->snmpDelay()->stop();
    m_monitor->setIntervalMs(p.intervalMs);
    if (host.isEmpty()) {
        m_monitor->start(); // says "No connection"
        return;
    }
    rememberDevice(host, p);
    startMonitor(p.target);
}

// Fetches what passwords the level needs, one after the other, then polls.
void SnmpPage::startMonitor(SnmpTarget target)
{
    const QString host = m_deviceAddress().trimmed();
    const quint64 serial = m_startSerial;
    const auto next = [this, serial](const SnmpTarget &t) {
        if (serial == m_startSerial)
            startMonitor(t);
    };
    if (target.needsAuth() && target.authPassword.isEmpty()) {
        SnmpCredentials::obtain(this, SnmpCredentials::key(host, target.user, QStringLiteral("auth")),
            tr("Authentication password of %1 on %2").arg(target.user, host),
            [target, next](std::optional<QString> password) mutable {
                if (!password)
                    return;
                target.authPassword = *password;
                next(target);
            });
        return;
    }
    if (target.needsPriv() && target.privPassword.isEmpty()) {
        SnmpCredentials::obtain(this, SnmpCredentials::key(host, target.user, QStringLiteral("priv")),
            tr("Privacy password of %1 on %2").arg(target.user, host),
            [target, next](std::optional<QString> password) mutable {
                if (!password)
                    return;
                target.privPassword = *password;
                next(target);
            });
        return;
    }
    m_monitor->setTarget(target);
    m_monitor->start();
}

void SnmpPage::showGraph()
{
    const QModelIndex current = m_interfaces->currentIndex();
    const QString name = current.isValid()
        ? m_monitor->table()->item(current.row(), SnmpMonitor::NameColumn)->text()
        : tr("No interface selected");
    m_graph->setHistory(name, m_monitor->history(m_selected), QDateTime::currentMSecsSinceEpoch());
}

void SnmpPage::exportCsv(bool history)
{
    if (history && m_selected == 0) {
        tw::messageBox(tr("Select an interface first"));
        return;
    }
    const QString path = QFileDialog::getSaveFileName(this, tr("Export"),
        history ? QStringLiteral("interface-%1.csv").arg(m_selected) : QStringLiteral("interfaces.csv"),
        tr("CSV files (*.csv)"));
    if (!path.isEmpty())
        exportCsv(history, path);
}

void SnmpPage::exportCsv(bool history, const QString &path)
{
    QFile file(path);
    const QByteArray csv = (history ? m_monitor->historyCsv(m_selected) : m_monitor->tableCsv()).toUtf8();
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(csv) != csv.size())
        tw::messageBox(tr("Cannot write %1").arg(path));
}
