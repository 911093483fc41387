#include "rommon_panel.h"

#include "recovery/local_address.h"

#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

RommonPanel::RommonPanel(QWidget *parent)
    : QWidget(parent)
    , m_sequence(this)
{
    setObjectName(QStringLiteral("RommonPanel"));
    static const char *const captions[RommonSequence::fieldCount]
        = { "IP Address", "Subnet Mask", "Default Gateway", "TFTP Server", "Filename" };
    auto *grid = new QGridLayout(this);
    grid->setContentsMargins(0, 0, 0, 0);
    for (int f = 0; f < RommonSequence::fieldCount; ++f) {
        const auto field = RommonSequence::Field(f);
        auto *label = new QLabel(tr(captions[f]), this);
        auto *box = new QLineEdit(m_sequence.text(field), this);
        box->setObjectName(QStringLiteral("Text%1").arg(2 + f));
        label->setObjectName(QStringLiteral("Text%1Label").arg(2 + f));
        label->setBuddy(box);
        grid->addWidget(label, f, 0);
        grid->addWidget(box, f, 1);
        connect(box, &QLineEdit::textChanged, this,
            [this, field](const QString &text) { m_sequence.setText(field, text); });
        m_boxes[f] = box;
    }
    connect(m_boxes[RommonSequence::TftpServer], &QLineEdit::textEdited, this,
        [this] { m_serverOffered = false; });
    connect(m_boxes[RommonSequence::IpAddress], &QLineEdit::editingFinished, this, [this] {
        if (m_serverOffered)
            offerServerAddress();
    });

    m_start = new QPushButton(tr("Start"), this);
    m_start->setObjectName(QStringLiteral("Command6"));
    grid->addWidget(m_start, RommonSequence::fieldCount, 1, Qt::AlignRight);
    grid->setRowStretch(RommonSequence::fieldCount + 1, 1);
    connect(m_start, &QPushButton::clicked, this, [this] {
        m_sequence.start();
        Q_EMIT startClicked();
    });
}

void RommonPanel::offerServerAddress()
{
    QLineEdit *server = m_boxes[RommonSequence::TftpServer];
    if (!server->text().isEmpty() && !m_serverOffered)
        return;
    const QString address
        = tw::localAddressFacing(m_boxes[RommonSequence::IpAddress]->text(), tw::localIPv4Entries());
    if (address.isEmpty())
        return;
    server->setText(address);
    m_serverOffered = true;
}
