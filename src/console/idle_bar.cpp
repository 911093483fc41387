#include "idle_bar.h"

#include "console/console_session.h"

#include <QPainter>
#include <QRandomGenerator>

IdleBar::IdleBar(ConsoleSession *session, QWidget *parent)
    : QWidget(parent)
    , m_session(session)
{
    setObjectName(QStringLiteral("Picture1"));
    setToolTip(QStringLiteral("Stop Timeout dicsonnect"));
    setMinimumHeight(8);
    // paintEvent() fills the whole bar, so the frame around it is not
    // repainted each time data arrives.
    setAttribute(Qt::WA_OpaquePaintEvent);
    connect(session, &ConsoleSession::idleChanged, this, [this] {
        // A touch of random colour each tick shows the bar is alive.
        m_hue = int(QRandomGenerator::global()->bounded(40));
        update();
    });
    connect(session, &ConsoleSession::connectionKindChanged, this, qOverload<>(&QWidget::update));
}

void IdleBar::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.fillRect(rect(), palette().window());
    if (m_session->connectionKind() != QLatin1String("TCP/IP"))
        return;
    const int countDown = qBound(0, int(m_session->countDown()), 60);
    const int w = width();
    if (m_session->keepAlive() == 2) {
        // Second idle minute: the bar shrinks towards the keep-alive.
        const int length = w * countDown / 60;
        painter.fillRect(QRect(0, 0, length, height()), QColor(200 + m_hue, 60, 40));
    } else {
        // First idle minute: full just after data, then a growing mark.
        const int length = countDown >= 55 ? w * countDown / 60 : w * (61 - countDown) / 60;
        const QColor colour = countDown >= 55 ? QColor(40, 160 + m_hue, 60) : QColor(200 + m_hue, 170, 40);
        painter.fillRect(QRect(0, 0, length, height()), colour);
    }
}
