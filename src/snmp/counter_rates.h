#pragma once

#include <QtGlobal>

#include <optional>

// Rates from two readings of an interface counter, worked out over the
// device's own clock (sysUpTime, hundredths of a second) rather than ours, so
// a slow answer or a late poll does not make traffic look bursty.
//
// Nothing here is ever negative or absurd: where the two readings cannot give
// a trustworthy rate (the device restarted, a counter was reset, a 32-bit
// counter may have wrapped more than once) the answer is "no rate" and the
// caller starts again from the newer reading.
namespace CounterRates {

// The device clock moved from `before` to `after` ticks: the elapsed ticks,
// or nullopt when it went backwards (a restart) or stood still. TimeTicks
// themselves wrap after 497 days; a step from the last hour before the wrap
// to the first hour after it is taken as that wrap, anything else that goes
// backwards as a restart.
std::optional<quint32> elapsedTicks(quint32 before, quint32 after);

// How far a counter of `bits` bits (32 or 64) moved from `before` to `after`.
// A 32-bit counter that went down wrapped once; a 64-bit counter cannot wrap
// in the life of any link, so one that went down was reset: nullopt.
std::optional<quint64> counterDelta(quint64 before, quint64 after, int bits);

// Events (or octets) per second from two readings `ticks` apart. For an
// octet counter pass maxPerSecond (the link's octets per second, 0 when
// unknown): a 32-bit counter that could have wrapped more than once in that
// time, or one that moved more than twice the link speed allows, is no rate.
std::optional<double> perSecond(
    quint64 before, quint64 after, int bits, quint32 ticks, double maxPerSecond = 0);

// Utilisation in percent of a link of speedBitsPerSecond (0: unknown, nullopt).
std::optional<double> utilisation(double bitsPerSecond, double speedBitsPerSecond);

} // namespace CounterRates

#include <QString>

namespace CounterRates {
// "950 b/s", "12.5 kb/s", "1.23 Mb/s", "10.0 Gb/s": three significant figures.
QString bitRateText(double bitsPerSecond);
} // namespace CounterRates
