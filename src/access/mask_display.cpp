#include "access/mask_display.h"

#include <QStringList>
#include <cmath>

QString maskDisplayForm(int prefix)
{
    const int p = qBound(0, prefix, 32);
    double sum = 0;
    for (int k = 32; k >= 33 - p; --k)
        sum += std::pow(2.0, k - 1);

    const double hi = std::floor(sum / 65536);
    const double lo = sum - hi * 65536;
    const double octet1 = std::floor(hi / 256);
    const double octet3 = std::floor(lo / 256);
    const double octets[4] = { octet1, hi - 256 * octet1, octet3, lo - 256 * octet3 };

    QStringList parts;
    for (double octet : octets) {
        QString text = QLatin1Char(' ') + QString::number(qint64(octet));
        if (text.size() == 2)
            text += QLatin1Char(' ');
        parts << text;
    }
    return parts.join(QLatin1Char('.'));
}
