// Draws the program's image list pictures and its program icon as PNG files.
// Run once after changing a picture (target tw_draw_icons, not built by
// default) and commit the output:
//   tw_draw_icons src/util/icons
// Every picture is drawn on a 32-unit grid and rendered at 16 and 32 pixels,
// so both sizes come from the same drawing.
#include <QDir>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QPainterPath>
#include <functional>

namespace {

using Draw = std::function<void(QPainter &)>;

void page(QPainter &p, const QColor &fill)
{
    QPainterPath outline;
    outline.moveTo(7, 2);
    outline.lineTo(20, 2);
    outline.lineTo(26, 8);
    outline.lineTo(26, 30);
    outline.lineTo(7, 30);
    outline.closeSubpath();
    p.setPen(QPen(QColor(90, 90, 90), 1.5));
    p.setBrush(fill);
    p.drawPath(outline);
    p.setBrush(QColor(210, 210, 210));
    QPainterPath corner;
    corner.moveTo(20, 2);
    corner.lineTo(20, 8);
    corner.lineTo(26, 8);
    corner.closeSubpath();
    p.drawPath(corner);
}

void lines(QPainter &p, const QColor &colour, int count, int top)
{
    p.setPen(QPen(colour, 2));
    for (int i = 0; i < count; ++i)
        p.drawLine(QPointF(10, top + 4 * i), QPointF(i % 2 ? 19 : 23, top + 4 * i));
}

void folder(QPainter &p)
{
    p.setPen(QPen(QColor(150, 110, 20), 1.5));
    p.setBrush(QColor(235, 190, 70));
    p.drawRoundedRect(QRectF(2, 6, 12, 6), 1.5, 1.5);
    p.setBrush(QColor(250, 210, 90));
    p.drawRoundedRect(QRectF(2, 9, 28, 19), 2, 2);
    p.setPen(QPen(QColor(255, 235, 160), 1.5));
    p.drawLine(QPointF(4, 12), QPointF(28, 12));
}

void console(QPainter &p)
{
    p.setPen(QPen(QColor(70, 70, 70), 1.5));
    p.setBrush(QColor(170, 170, 175));
    p.drawRoundedRect(QRectF(1.5, 3.5, 29, 22), 3, 3);
    p.setBrush(QColor(20, 30, 25));
    p.drawRect(QRectF(4.5, 6.5, 23, 16));
    p.setPen(QPen(QColor(80, 230, 100), 2.5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.drawPolyline(QPolygonF({ QPointF(8, 10), QPointF(12, 14), QPointF(8, 18) }));
    p.drawLine(QPointF(15, 18), QPointF(22, 18));
    p.setPen(QPen(QColor(70, 70, 70), 1.5));
    p.setBrush(QColor(130, 130, 135));
    p.drawRect(QRectF(10, 26, 12, 3));
}

void application(QPainter &p)
{
    // A chip: firmware images and programs alike.
    p.setPen(QPen(QColor(120, 120, 120), 2));
    for (int i = 0; i < 4; ++i) {
        const qreal at = 9 + 5 * i;
        p.drawLine(QPointF(at, 2), QPointF(at, 6));
        p.drawLine(QPointF(at, 26), QPointF(at, 30));
        p.drawLine(QPointF(2, at), QPointF(6, at));
        p.drawLine(QPointF(26, at), QPointF(30, at));
    }
    p.setPen(QPen(QColor(20, 40, 90), 1.5));
    p.setBrush(QColor(45, 90, 170));
    p.drawRoundedRect(QRectF(6, 6, 20, 20), 2.5, 2.5);
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(160, 200, 255));
    p.drawEllipse(QPointF(11, 11), 2, 2);
}

void config(QPainter &p)
{
    page(p, QColor(235, 250, 235));
    lines(p, QColor(40, 140, 60), 3, 12);
    // A small gear in the corner marks settings.
    p.setPen(QPen(QColor(60, 60, 60), 2.5));
    for (int i = 0; i < 4; ++i) {
        p.save();
        p.translate(21, 24);
        p.rotate(45 * i);
        p.drawLine(QPointF(-6, 0), QPointF(6, 0));
        p.restore();
    }
    p.setPen(QPen(QColor(60, 60, 60), 1.5));
    p.setBrush(QColor(140, 140, 140));
    p.drawEllipse(QPointF(21, 24), 4, 4);
    p.setBrush(QColor(235, 250, 235));
    p.drawEllipse(QPointF(21, 24), 1.5, 1.5);
}

void unknown(QPainter &p)
{
    page(p, Qt::white);
    QFont font(QStringLiteral("Sans"));
    font.setPixelSize(18);
    font.setBold(true);
    p.setFont(font);
    p.setPen(QColor(120, 120, 120));
    p.drawText(QRectF(7, 8, 19, 22), Qt::AlignCenter, QStringLiteral("?"));
}

void audio(QPainter &p)
{
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(150, 50, 160));
    p.drawEllipse(QPointF(9, 24), 5, 4);
    p.drawEllipse(QPointF(23, 21), 5, 4);
    p.setPen(QPen(QColor(150, 50, 160), 2.5));
    p.drawLine(QPointF(13.5, 24), QPointF(13.5, 6));
    p.drawLine(QPointF(27.5, 21), QPointF(27.5, 3));
    p.setPen(QPen(QColor(150, 50, 160), 4));
    p.drawLine(QPointF(13.5, 7), QPointF(27.5, 4));
}

void picture(QPainter &p)
{
    p.setPen(QPen(QColor(90, 70, 40), 1.5));
    p.setBrush(QColor(150, 200, 245));
    p.drawRect(QRectF(2.5, 5.5, 27, 21));
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(250, 210, 60));
    p.drawEllipse(QPointF(22, 11), 3, 3);
    p.setBrush(QColor(60, 140, 60));
    p.drawPolygon(
        QPolygonF({ QPointF(3, 26), QPointF(12, 13), QPointF(18, 21), QPointF(22, 17), QPointF(29, 26) }));
}

void network(QPainter &p)
{
    const QPointF a(16, 6), b(6, 25), c(26, 25);
    p.setPen(QPen(QColor(70, 70, 70), 2));
    p.drawLine(a, b);
    p.drawLine(a, c);
    p.drawLine(b, c);
    p.setPen(QPen(QColor(20, 60, 110), 1.5));
    p.setBrush(QColor(70, 150, 220));
    for (const QPointF &node : { a, b, c })
        p.drawEllipse(node, 4.5, 4.5);
}

void text(QPainter &p)
{
    page(p, Qt::white);
    lines(p, QColor(40, 40, 40), 5, 11);
}

void program(QPainter &p)
{
    // A router: a cylinder with the four crossing arrows, over a console prompt.
    const QColor side(25, 95, 160), top(80, 160, 225);
    p.setPen(QPen(QColor(15, 50, 90), 1.2));
    p.setBrush(side);
    QPainterPath body;
    body.moveTo(2, 11);
    body.lineTo(2, 21);
    body.arcTo(QRectF(2, 16, 28, 10), 180, 180);
    body.lineTo(30, 11);
    body.closeSubpath();
    p.drawPath(body);
    p.setBrush(top);
    p.drawEllipse(QRectF(2, 6, 28, 10));
    p.setPen(QPen(Qt::white, 1.6, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    auto arrow = [&p](QPointF from, QPointF to) {
        p.drawLine(from, to);
        const QPointF d = (to - from) / 3.0;
        const QPointF n(-d.y() * 0.6, d.x() * 0.6);
        p.drawLine(to, to - d + n);
        p.drawLine(to, to - d - n);
    };
    arrow(QPointF(13, 10), QPointF(6, 8));
    arrow(QPointF(19, 12), QPointF(26, 14));
    arrow(QPointF(8, 14), QPointF(14, 12.5));
    arrow(QPointF(24, 8), QPointF(18, 9.5));
    p.setPen(QPen(QColor(80, 230, 100), 2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.drawPolyline(QPolygonF({ QPointF(9, 19), QPointF(12, 21.5), QPointF(9, 24) }));
    p.drawLine(QPointF(15, 24), QPointF(21, 24));
}

} // namespace

int main(int argc, char **argv)
{
    QGuiApplication app(argc, argv);
    const QString out = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral(".");
    const QList<QPair<QString, Draw>> pictures = {
        { QStringLiteral("folder"), folder },
        { QStringLiteral("console"), console },
        { QStringLiteral("application"), application },
        { QStringLiteral("config"), config },
        { QStringLiteral("unknown"), unknown },
        { QStringLiteral("audio"), audio },
        { QStringLiteral("picture"), picture },
        { QStringLiteral("network"), network },
        { QStringLiteral("text"), text },
        { QStringLiteral("program"), program },
    };
    // "--hicolor": only the program icon, in the desktop theme's sizes, named
    // as the desktop entry refers to it (packaging/icons/<size>/tarnwick.png).
    const bool hicolor = argc > 2 && QString::fromLocal8Bit(argv[2]) == QLatin1String("--hicolor");
    const QList<int> sizes = hicolor ? QList<int> { 16, 32, 48, 64, 128, 256 } : QList<int> { 16, 32 };
    for (int size : sizes) {
        QDir().mkpath(QStringLiteral("%1/%2").arg(out).arg(size));
        for (const auto &[name, draw] : pictures) {
            if (hicolor && name != QLatin1String("program"))
                continue;
            QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
            image.fill(Qt::transparent);
            QPainter painter(&image);
            painter.setRenderHint(QPainter::Antialiasing);
            painter.scale(size / 32.0, size / 32.0);
            draw(painter);
            painter.end();
            const QString file = hicolor ? QStringLiteral("tarnwick") : name;
            if (!image.save(QStringLiteral("%1/%2/%3.png").arg(out).arg(size).arg(file)))
                return 1;
        }
    }
    return 0;
}
