#include "splash.h"

#include <QApplication>
#include <QLabel>
#include <QSysInfo>
#include <QTimer>
#include <QVBoxLayout>

Splash::Splash(int showMilliseconds, QWidget *parent)
    : QWidget(parent, Qt::SplashScreen | Qt::WindowStaysOnTopHint)
{
    setObjectName(QStringLiteral("Splash"));
    setAttribute(Qt::WA_DeleteOnClose);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(24, 18, 24, 18);

    auto *logo = new QLabel(this);
    logo->setObjectName(QStringLiteral("imgLogo"));
    logo->setPixmap(QApplication::windowIcon().pixmap(64, 64));
    logo->setAlignment(Qt::AlignCenter);
    auto *product = new QLabel(QStringLiteral("Tarnwick"), this);
    product->setObjectName(QStringLiteral("lblProductName"));
    QFont big = product->font();
    big.setPointSize(big.pointSize() * 2);
    big.setBold(true);
    product->setFont(big);
    auto *platform = new QLabel(QStringLiteral("for ") + QSysInfo::prettyProductName(), this);
    platform->setObjectName(QStringLiteral("lblPlatform"));
    auto *company = new QLabel(QStringLiteral("The Tarnwick developers"), this);
    company->setObjectName(QStringLiteral("lblCompany"));
    auto *warning = new QLabel(QStringLiteral("Warning This program has no warranty :)"), this);
    warning->setObjectName(QStringLiteral("lblWarning"));
    auto *version = new QLabel(versionText(), this);
    version->setObjectName(QStringLiteral("lblVersion"));
    for (QLabel *label : { logo, product, platform, company, warning, version }) {
        label->setAlignment(Qt::AlignCenter);
        layout->addWidget(label);
    }

    auto *timer = new QTimer(this);
    timer->setObjectName(QStringLiteral("Timer1"));
    timer->setSingleShot(true);
    connect(timer, &QTimer::timeout, this, &QWidget::close);
    timer->start(showMilliseconds);
}

QString Splash::versionText()
{
    return QStringLiteral("Version ") + QStringLiteral(TARNWICK_VERSION);
}
