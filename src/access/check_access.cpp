#include "access/check_access.h"

#include "access/access_list.h"

#include <QStringList>
#include <cmath>
#include <cstdlib>
#include <limits>

std::optional<int> octetValue(const QString &text)
{
    const QByteArray bytes = text.toLatin1();
    const char *p = bytes.constData();
    while (*p == ' ' || *p == '\t')
        ++p;
    // Take the longest prefix that reads as a decimal number (sign, digits,
    // point, exponent); whatever follows is ignored, an empty text is 0.
    const char *start = p;
    if (*p == '+' || *p == '-')
        ++p;
    const char *digits = p;
    while (*p >= '0' && *p <= '9')
        ++p;
    if (*p == '.') {
        ++p;
        while (*p >= '0' && *p <= '9')
            ++p;
    }
    if (p == digits || (p == digits + 1 && *digits == '.'))
        return 0;
    if (*p == 'e' || *p == 'E') {
        const char *q = p + 1;
        if (*q == '+' || *q == '-')
            ++q;
        if (*q >= '0' && *q <= '9') {
            while (*q >= '0' && *q <= '9')
                ++q;
            p = q;
        }
    }
    const double value = std::strtod(QByteArray(start, p - start).constData(), nullptr);
    const double rounded = std::nearbyint(value); // half to even
    if (!std::isfinite(rounded) || rounded < std::numeric_limits<qint32>::min()
        || rounded > std::numeric_limits<qint32>::max())
        return std::nullopt;
    return int(rounded);
}

namespace {

enum class Match { No, Yes, Failed };

bool fits16(int value)
{
    return value >= std::numeric_limits<qint16>::min() && value <= std::numeric_limits<qint16>::max();
}

Match rowMatches(const QStringList &address, const AccessEntry &entry, QString *why)
{
    const QStringList network = entry.network.split(QLatin1Char('.'));
    const QStringList mask = entry.mask.split(QLatin1Char('.'));
    if (network.size() < 4 || mask.size() < 4) {
        *why = QStringLiteral("fewer than four dot-separated parts");
        return Match::Failed;
    }
    for (int j = 0; j < 4; ++j) {
        const auto a = octetValue(address[j]);
        const auto m = octetValue(mask[j]);
        const auto n = octetValue(network[j]);
        if (!a || !m || !n) {
            *why = QStringLiteral("an octet overflows");
            return Match::Failed;
        }
        // The masked results are what must fit 16 bits: "40000" under 255 is 64.
        const int maskedAddress = *a & *m, maskedNetwork = *n & *m;
        if (!fits16(maskedAddress) || !fits16(maskedNetwork)) {
            *why = QStringLiteral("an octet overflows");
            return Match::Failed;
        }
        if (maskedAddress != maskedNetwork)
            return Match::No;
    }
    return Match::Yes;
}

} // namespace

namespace {

template <typename Rows>
int decide(const Rows &rows, const AccessRequest &request, const TransferRecorder &record,
    const AccessVeto &veto, QString *failure)
{
    const QStringList address = request.remoteAddress.split(QLatin1Char('.'));
    if (address.size() < 4) {
        if (failure)
            *failure = QStringLiteral("requesting address \"%1\": fewer than four dot-separated parts")
                           .arg(request.remoteAddress);
        return AccessDecision::Failed;
    }

    int result = AccessDecision::Refused;
    QString why;
    for (int row = 1; row <= rows.count(); ++row) {
        switch (rowMatches(address, rows.entry(row), &why)) {
        case Match::Failed:
            if (failure)
                *failure = QStringLiteral("access-list row %1 (\"%2\" / \"%3\"): %4")
                               .arg(row)
                               .arg(rows.entry(row).network, rows.entry(row).mask, why);
            return AccessDecision::Failed;
        case Match::Yes:
            result = row; // keep looking: the last match decides
            break;
        case Match::No:
            break;
        }
    }

    if (result > 0) {
        const AccessEntry deciding = rows.entry(result);
        const QString &right = request.kind == AccessDecision::Read ? deciding.read : deciding.write;
        if ((request.kind == AccessDecision::Read || request.kind == AccessDecision::Write)
            && right == QLatin1String("no"))
            result = AccessDecision::Refused;
        else if (veto && !veto(result))
            result = AccessDecision::Refused;
    }

    if (record) {
        const bool allowed = result > 0;
        const bool read = request.kind == AccessDecision::Read;
        // Allowed: data flows server -> requester for reads. Blocked rows are
        // shown the other way round; keep it, people read the list that way.
        const bool serverFirst = allowed == read;
        record(request.fileName, serverFirst ? request.localAddress : request.remoteAddress,
            serverFirst ? request.remoteAddress : request.localAddress,
            allowed ? QStringLiteral("Allowed") : QStringLiteral("Blocked"));
    }
    return result;
}

struct ListRows
{
    const AccessList &list;
    int count() const { return list.count(); }
    AccessEntry entry(int row) const { return list.entry(row); }
};

struct EntryRows
{
    const QList<AccessEntry> &entries;
    int count() const { return int(entries.size()); }
    AccessEntry entry(int row) const { return entries.at(row - 1); }
};

} // namespace

int CheckAccess(const AccessList &list, const AccessRequest &request, const TransferRecorder &record,
    const AccessVeto &veto, QString *failure)
{
    return decide(ListRows { list }, request, record, veto, failure);
}

int CheckAccess(const QList<AccessEntry> &rows, const AccessRequest &request, const TransferRecorder &record,
    const AccessVeto &veto, QString *failure)
{
    return decide(EntryRows { rows }, request, record, veto, failure);
}
