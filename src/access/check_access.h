#pragma once

#include <QList>
#include <QString>
#include <functional>
#include <optional>

class AccessList;
struct AccessEntry;

// The access decision for one TFTP or HTTP request.
//
// Every row of the list is compared with the requesting address, octet by
// octet under the row's mask, and the LAST matching row decides: an earlier,
// more specific row never wins over a later, broader one. The deciding row's
// read (kind 1) or write (kind 2) column refuses only when it holds exactly
// "no" (case-sensitive). No match refuses. Octet texts are read by their
// leading number (blanks skipped, "1e2" is 100, junk after the number is
// ignored), so the mask's display form and hand-edited files both work.
//
// Each decision is recorded as one transfer-monitor row through the recorder:
// the file name, "From" and "To" addresses and "Allowed" or "Blocked".
// Allowed reads go from the server to the requester and allowed writes the
// other way; blocked rows show the two addresses swapped relative to the
// allowed ones, which is how the monitor has always shown them.
//
// Winding up a refused slot (dropping its datagrams, arming its timer) is the
// caller's business: the TFTP engine does it when the result is -1.

namespace AccessDecision {
// A row or address without four dot-separated parts, an octet beyond 32 bits,
// or an octet whose masked result falls outside -32768..32767 makes the
// decision fail: nothing is recorded, and the caller answers nothing and
// keeps the slot as it was.
constexpr int Failed = -2;
constexpr int Refused = -1;
constexpr int Read = 1;
constexpr int Write = 2;
} // namespace AccessDecision

struct AccessRequest
{
    QString remoteAddress; // the requester, dotted IPv4
    QString localAddress; // the server's address the request reached
    int kind = AccessDecision::Read;
    QString fileName; // as requested
};

using TransferRecorder = std::function<void(
    const QString &fileName, const QString &from, const QString &to, const QString &status)>;

// Optional extra veto on an otherwise allowed request (given the deciding
// row); a vetoed request is recorded and answered exactly like a refused one.
using AccessVeto = std::function<bool(int row)>;

// Returns the deciding row (from 1), AccessDecision::Refused or AccessDecision::Failed.
// On Failed, `failure` (when given) names the row or address and the reason.
int CheckAccess(const AccessList &list, const AccessRequest &request, const TransferRecorder &record,
    const AccessVeto &veto = {}, QString *failure = nullptr);

// The same decision over a copy of the list's rows, for a server thread that
// cannot read the list itself (it lives with the windows).
int CheckAccess(const QList<AccessEntry> &rows, const AccessRequest &request, const TransferRecorder &record,
    const AccessVeto &veto = {}, QString *failure = nullptr);

// The leading-number reading of one octet text, rounded to an integer;
// nullopt when the value does not fit a 32-bit signed integer.
std::optional<int> octetValue(const QString &text);
