#include "snmp/rate_graph.h"

#include "snmp/counter_rates.h"

#include <QDateTime>
#include <QPainter>
#include <QPainterPath>

#include <cmath>

RateGraph::RateGraph(QWidget *parent)
    : QWidget(parent)
{
    setObjectName(QStringLiteral("RateGraph"));
    setMinimumHeight(160);
    setAutoFillBackground(true);
    setBackgroundRole(QPalette::Base);
}

void RateGraph::setHistory(const QString &title, const QList<SnmpMonitor::Point> &points, qint64 nowMs)
{
    m_title = title;
    m_points = points;
    m_now = nowMs;
    update();
}

double RateGraph::scaleTop(double peak)
{
    if (!(peak > 0))
        return 1000;
    const double decade = std::pow(10.0, std::floor(std::log10(peak)));
    for (double step : { 1.0, 2.0, 5.0, 10.0 })
        if (step * decade >= peak)
            return step * decade;
    return 10 * decade;
}

void RateGraph::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QFontMetrics fm = fontMetrics();
    const QRect plot = rect().adjusted(
        fm.horizontalAdvance(QStringLiteral("999 Mb/s")) + 12, fm.height() + 8, -12, -(fm.height() + 8));
    if (plot.width() < 20 || plot.height() < 20)
        return;

    double peak = 0;
    for (const auto &pt : std::as_const(m_points))
        for (double v : { pt.inBps, pt.outBps })
            if (!std::isnan(v))
                peak = qMax(peak, v);
    const double top = scaleTop(peak);
    const qint64 span = SnmpMonitor::historyMs;
    const qint64 left = m_now - span;
    const auto x = [&](qint64 ms) { return plot.left() + double(ms - left) * plot.width() / double(span); };
    const auto y = [&](double v) { return plot.bottom() - v * plot.height() / top; };

    const QColor grid = palette().color(QPalette::Mid);
    const QColor text = palette().color(QPalette::Text);
    p.setPen(grid);
    p.drawRect(plot);
    // Five steps up the side, one every ten minutes along the bottom.
    for (int i = 0; i <= 5; ++i) {
        const double v = top * i / 5;
        const int yy = int(std::lround(y(v)));
        p.setPen(grid);
        p.drawLine(plot.left(), yy, plot.right(), yy);
        p.setPen(text);
        p.drawText(QRect(0, yy - fm.height() / 2, plot.left() - 6, fm.height()),
            Qt::AlignRight | Qt::AlignVCenter, CounterRates::bitRateText(v));
    }
    const qint64 tenMinutes = 10 * 60 * 1000;
    for (qint64 t = (left / tenMinutes + 1) * tenMinutes; t <= m_now; t += tenMinutes) {
        const int xx = int(std::lround(x(t)));
        p.setPen(grid);
        p.drawLine(xx, plot.top(), xx, plot.bottom());
        p.setPen(text);
        const QString label = QDateTime::fromMSecsSinceEpoch(t).toString(QStringLiteral("HH:mm"));
        p.drawText(QRect(xx - 40, plot.bottom() + 4, 80, fm.height()), Qt::AlignCenter, label);
    }

    const QColor inColour(0x2e, 0x7d, 0x32), outColour(0x15, 0x65, 0xc0);
    const auto line = [&](double SnmpMonitor::Point::*field, const QColor &colour) {
        QPainterPath path;
        bool pen = false;
        for (const auto &pt : std::as_const(m_points)) {
            const double v = pt.*field;
            if (std::isnan(v) || pt.msecs < left) {
                pen = false;
                continue;
            }
            const QPointF at(x(pt.msecs), y(v));
            pen ? path.lineTo(at) : path.moveTo(at);
            pen = true;
        }
        p.setPen(QPen(colour, 1));
        p.setClipRect(plot);
        p.drawPath(path);
        p.setClipping(false);
    };
    line(&SnmpMonitor::Point::inBps, inColour);
    line(&SnmpMonitor::Point::outBps, outColour);

    // Title and legend with the newest figures above the plot.
    const auto latest = [&](double SnmpMonitor::Point::*field) {
        for (auto it = m_points.crbegin(); it != m_points.crend(); ++it)
            if (!std::isnan((*it).*field))
                return CounterRates::bitRateText((*it).*field);
        return QStringLiteral("-");
    };
    int at = plot.left();
    p.setPen(text);
    p.drawText(at, fm.ascent() + 2, m_title);
    at += fm.horizontalAdvance(m_title) + 16;
    for (const auto &[name, field, colour] : { std::tuple { tr("In"), &SnmpMonitor::Point::inBps, inColour },
             std::tuple { tr("Out"), &SnmpMonitor::Point::outBps, outColour } }) {
        p.fillRect(at, fm.ascent() / 2, 14, 4, colour);
        at += 18;
        const QString label = name + QLatin1Char(' ') + latest(field);
        p.drawText(at, fm.ascent() + 2, label);
        at += fm.horizontalAdvance(label) + 16;
    }
}
