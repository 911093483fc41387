#include "snmp/snmp_page.h"

#include "snmp/snmp_poller.h"
#include "util/message_box.h"
#include "util/twips.h"

#include <QGridLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTreeView>
#include <QVBoxLayout>

SnmpPage::SnmpPage(std::function<QString()> deviceAddress, QWidget *parent)
    : QWidget(parent)
    , m_poller(new SnmpPoller(std::move(deviceAddress), this))
{
    setObjectName(QStringLiteral("SnmpPage"));

    m_community = new QLineEdit(QStringLiteral("comstr"), this);
    m_community->setObjectName(QStringLiteral("ComString"));
    auto *start = new QPushButton(tr("Start"), this);
    start->setObjectName(QStringLiteral("SNMPStart"));
    auto *stop = new QPushButton(tr("Stop"), this);
    stop->setObjectName(QStringLiteral("SNMPStop"));

    auto *grid = new QGridLayout;
    grid->addWidget(addLabel("Label2", tr("String")), 0, 0);
    grid->addWidget(m_community, 0, 1);
    auto *buttons = new QHBoxLayout;
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

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(side, side, side, side);
    layout->setSpacing(side);
    layout->addWidget(controls);
    layout->addWidget(m_stats, 1);

    const auto bind = [this](const char *name, void (SnmpPoller::*signal)(const QString &)) {
        QLabel *label = findChild<QLabel *>(QLatin1String(name));
        connect(m_poller, signal, label, &QLabel::setText);
    };
    bind("Label3", &SnmpPoller::uptimeTextChanged);
    bind("Label4", &SnmpPoller::cpuTextChanged);
    bind("Label5", &SnmpPoller::freeMemoryTextChanged);
    bind("Label7", &SnmpPoller::stateChanged);
    bind("Label9", &SnmpPoller::interfacesTextChanged);

    m_poller->setCommunity(m_community->text());
    connect(m_community, &QLineEdit::textChanged, m_poller, &SnmpPoller::setCommunity);
    connect(start, &QPushButton::clicked, this, [this] {
        Q_EMIT startClicked();
        m_poller->start();
    });
    connect(m_poller, &SnmpPoller::noConnection, this, [] { tw::messageBox(tr("No connection")); });
}

QLabel *SnmpPage::addLabel(const char *name, const QString &text)
{
    auto *label = new QLabel(text, this);
    label->setObjectName(QLatin1String(name));
    return label;
}
