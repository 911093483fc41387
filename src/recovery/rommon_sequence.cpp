#include "rommon_sequence.h"

#include <QTimer>

RommonSequence::RommonSequence(QObject *parent)
    : QObject(parent)
{
    m_texts[SubnetMask] = QStringLiteral("255.255.255.0");
    for (int i = 0; i < int(m_timers.size()); ++i) {
        auto *timer = new QTimer(this);
        timer->setObjectName(QStringLiteral("Timer%1").arg(4 + i));
        timer->setSingleShot(true);
        // Precise, so that two interleaved runs keep their order.
        timer->setTimerType(Qt::PreciseTimer);
        timer->setInterval(m_stepInterval);
        const int step = i + 1;
        connect(timer, &QTimer::timeout, this, [this, step] { tick(step); });
        m_timers[i] = timer;
    }
}

void RommonSequence::setStepInterval(int ms)
{
    m_stepInterval = ms;
    for (QTimer *timer : m_timers)
        timer->setInterval(ms);
}

void RommonSequence::start()
{
    if (!m_timers[0]->isActive())
        m_timers[0]->start();
    Q_EMIT lineReady(line(0, m_texts));
}

void RommonSequence::stop()
{
    for (QTimer *timer : m_timers)
        timer->stop();
}

bool RommonSequence::isRunning() const
{
    for (const QTimer *timer : m_timers) {
        if (timer->isActive())
            return true;
    }
    return false;
}

QByteArray RommonSequence::line(int step, const std::array<QString, fieldCount> &texts)
{
    static const char *const names[fieldCount]
        = { "IP_ADDRESS=", "IP_SUBNET_MASK=", "DEFAULT_GATEWAY=", "TFTP_SERVER=", "TFTP_FILE=" };
    if (step == 0)
        return names[0] + texts[0].toLatin1() + "\r\n";
    if (step < fieldCount)
        return names[step] + texts[step].toLatin1() + '\r';
    return QByteArrayLiteral("tftpdnld\r");
}

void RommonSequence::tick(int step)
{
    // The next timer starts before the line goes out, so a receiver that
    // stops the sequence from lineReady stops it for good.
    if (step < fieldCount && !m_timers[step]->isActive())
        m_timers[step]->start();
    Q_EMIT lineReady(line(step, m_texts));
    if (step == fieldCount)
        Q_EMIT finished();
}
