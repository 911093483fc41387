#include "console_recovery.h"

#include "console/console_session.h"
#include "console/console_window.h"
#include "recovery/flash_backup_panel.h"
#include "recovery/rommon_panel.h"
#include "util/message_box.h"

#include <QAction>
#include <QGroupBox>
#include <QLayout>
#include <QLineEdit>
#include <QVBoxLayout>

namespace {
const QString serialKind = QStringLiteral("Serial");
const QString tcpKind = QStringLiteral("TCP/IP");

// The frames come empty from the console window; give them a layout if they
// happen to lack one, so the panels always have a home.
QLayout *frameLayout(QGroupBox *frame)
{
    if (!frame->layout())
        new QVBoxLayout(frame);
    return frame->layout();
}
} // namespace

ConsoleRecovery::ConsoleRecovery(ConsoleWindow *console)
    : QObject(console)
    , m_console(console)
    , m_session(console->session())
    , m_frame6(console->backUpFlashFrame())
    , m_frame7(console->rommonFrame())
{
    setObjectName(QStringLiteral("ConsoleRecovery"));
    Q_ASSERT(m_frame6 && m_frame7);

    m_rommon = new RommonPanel(m_frame7);
    frameLayout(m_frame7)->addWidget(m_rommon);
    m_flash = new FlashBackupPanel(m_frame6);
    frameLayout(m_frame6)->addWidget(m_flash);

    connect(console->rommonAction(), &QAction::triggered, this, &ConsoleRecovery::toggleRommon);
    connect(console->backUpFlashAction(), &QAction::triggered, this, &ConsoleRecovery::showFlashBackup);

    connect(m_rommon, &RommonPanel::startClicked, this, &ConsoleRecovery::startRommon);
    connect(m_rommon->sequence(), &RommonSequence::lineReady, this, &ConsoleRecovery::sendRommonLine);

    connect(m_session, &ConsoleSession::listingText, m_flash->backup(), &FlashBackup::feed);
    connect(m_flash, &FlashBackupPanel::moreClicked, this, &ConsoleRecovery::showMore);
    connect(m_flash, &FlashBackupPanel::copyClicked, this, &ConsoleRecovery::copyTicked);
    connect(m_flash, &FlashBackupPanel::closeClicked, this, &ConsoleRecovery::closeFlashBackup);
    connect(
        m_session, &ConsoleSession::connectionKindChanged, this, &ConsoleRecovery::onConnectionKindChanged);
}

void ConsoleRecovery::toggleRommon()
{
    if (m_session->connectionKind() != serialKind)
        return;
    m_frame7->setVisible(m_frame7->isHidden());
    if (!m_frame7->isHidden())
        m_rommon->offerServerAddress();
    m_console->relayout();
}

void ConsoleRecovery::startRommon()
{
    // The panel has already started the sequence (first line out, Timer4 on).
    m_frame7->hide();
    m_console->relayout();
}

void ConsoleRecovery::sendRommonLine(const QByteArray &line)
{
    if (!m_session->serialOpen()) {
        m_rommon->sequence()->stop();
        return;
    }
    m_session->sendSerial(line);
}

void ConsoleRecovery::showFlashBackup()
{
    if (m_session->connectionKind() == tcpKind) {
        m_flash->backup()->clear();
        m_frame6->show();
        m_session->setListingReaderActive(true);
        m_session->send(FlashBackup::listCommand());
    }
    m_console->relayout();
}

void ConsoleRecovery::showMore()
{
    if (m_session->connectionKind() != tcpKind)
        return;
    m_session->setListingReaderActive(true);
    m_session->send(FlashBackup::moreCommand());
}

void ConsoleRecovery::copyTicked()
{
    const QString server = m_console->tftpServerEdit()->text();
    if (server.trimmed().isEmpty()) {
        tw::messageBox(tr("Please enter an IP address"));
        return;
    }
    const QList<QByteArray> commands = m_flash->backup()->copyCommandsForTicked(server);
    if (commands.isEmpty())
        return;
    m_session->setListingReaderActive(false);
    for (const QByteArray &command : commands)
        m_session->send(command);
}

void ConsoleRecovery::closeFlashBackup()
{
    m_session->setListingReaderActive(false);
    m_frame6->hide();
    m_console->relayout();
}

void ConsoleRecovery::onConnectionKindChanged(const QString &kind)
{
    if (!m_session->serialOpen())
        m_rommon->sequence()->stop();
    if (kind != tcpKind)
        m_session->setListingReaderActive(false);
}

ConsoleRecovery *attachRecovery(ConsoleWindow *console)
{
    if (auto *existing = console->findChild<ConsoleRecovery *>(QString(), Qt::FindDirectChildrenOnly))
        return existing;
    return new ConsoleRecovery(console);
}
