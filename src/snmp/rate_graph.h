#pragma once

#include "snmp/snmp_monitor.h"

#include <QWidget>

// The selected interface's in and out rates over the last hour, painted:
// time along the bottom (clock times, the newest at the right edge), bit/s up
// the side with k/M/G steps of 1, 2 or 5. A gap in the history (a poll that
// gave no rate) breaks the line rather than bridging it.
class RateGraph : public QWidget
{
    Q_OBJECT
public:
    explicit RateGraph(QWidget *parent = nullptr);

    void setHistory(const QString &title, const QList<SnmpMonitor::Point> &points, qint64 nowMs);

    // The top of the scale for a peak: the next 1, 2 or 5 × 10^n at or above it.
    static double scaleTop(double peak);

    QSize sizeHint() const override { return { 600, 220 }; }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QString m_title;
    QList<SnmpMonitor::Point> m_points;
    qint64 m_now = 0;
};
