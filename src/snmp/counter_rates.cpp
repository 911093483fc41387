#include "snmp/counter_rates.h"

#include <limits>

namespace CounterRates {

namespace {
constexpr quint32 ticksPerHour = 100 * 3600;
}

std::optional<quint32> elapsedTicks(quint32 before, quint32 after)
{
    if (after > before)
        return after - before;
    const bool wrapped = before >= std::numeric_limits<quint32>::max() - ticksPerHour && after < ticksPerHour;
    if (wrapped)
        return after - before; // unsigned arithmetic counts across the wrap
    return std::nullopt;
}

std::optional<quint64> counterDelta(quint64 before, quint64 after, int bits)
{
    if (after >= before)
        return after - before;
    if (bits == 32 && before <= 0xFFFFFFFFull && after <= 0xFFFFFFFFull)
        return (0x100000000ull - before) + after;
    return std::nullopt;
}

std::optional<double> perSecond(quint64 before, quint64 after, int bits, quint32 ticks, double maxPerSecond)
{
    if (ticks == 0)
        return std::nullopt;
    const double seconds = ticks / 100.0;
    if (bits == 32 && maxPerSecond > 0 && maxPerSecond * seconds >= 4294967296.0)
        return std::nullopt; // the counter could have gone round more than once
    const std::optional<quint64> delta = counterDelta(before, after, bits);
    if (!delta)
        return std::nullopt;
    const double rate = double(*delta) / seconds;
    // Only a 32-bit counter is held to the link speed: there a reset can pass
    // for a wrap. Virtual interfaces report speeds they exceed (Linux loopback
    // says 10 Mb/s), so 64-bit counters are believed.
    if (bits == 32 && maxPerSecond > 0 && rate > 2 * maxPerSecond)
        return std::nullopt; // a reset or a jump, not traffic
    return rate;
}

std::optional<double> utilisation(double bitsPerSecond, double speedBitsPerSecond)
{
    if (speedBitsPerSecond <= 0)
        return std::nullopt;
    return qMin(100.0, 100.0 * bitsPerSecond / speedBitsPerSecond);
}

} // namespace CounterRates

QString CounterRates::bitRateText(double bps)
{
    static const char *const units[] = { "b/s", "kb/s", "Mb/s", "Gb/s", "Tb/s" };
    int unit = 0;
    while (bps >= 999.5 && unit < 4) {
        bps /= 1000;
        ++unit;
    }
    const int decimals = bps >= 99.95 || unit == 0 ? 0 : bps >= 9.995 ? 1 : 2;
    return QString::number(bps, 'f', decimals) + QLatin1Char(' ') + QLatin1String(units[unit]);
}
