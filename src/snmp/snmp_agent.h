#pragma once

#include "snmp/snmp_value.h"

#include <QMetaType>
#include <QString>

#include <atomic>
#include <functional>
#include <optional>

struct snmp_pdu;

// What the v2c and v3 monitor talks to an agent with: a thin layer over
// net-snmp's single-session API. net-snmp does the protocol work (USM, engine
// ID discovery, key localisation, privacy, GetBulk, time-outs and retries);
// this layer turns our settings into its session, its variables into plain
// values and its errors into words. Calls block for up to time-out × tries, so
// an AgentSession lives on a worker thread, never on the UI thread.

// Who to poll and how. version is 2 (v2c) or 3.
struct SnmpTarget
{
    enum class Level { NoAuthNoPriv, AuthNoPriv, AuthPriv };
    enum class Auth { Md5, Sha1, Sha224, Sha256, Sha384, Sha512 };
    enum class Priv { Des, Aes128, Aes192, Aes256 };

    QString host;
    quint16 port = 161;
    int version = 2;
    QString community;
    QString user;
    Level level = Level::AuthPriv;
    Auth auth = Auth::Sha1;
    Priv priv = Priv::Aes128;
    QString authPassword;
    QString privPassword;
    QString context;
    int timeoutMs = 1000;
    int tries = 3;

    bool operator==(const SnmpTarget &) const = default;
    bool needsAuth() const { return version == 3 && level != Level::NoAuthNoPriv; }
    bool needsPriv() const { return version == 3 && level == Level::AuthPriv; }
};

// A net-snmp library error (SNMPERR_*) in words. Time-outs read
// "No response from HOST (N tries)".
QString agentErrorText(int snmpErr, const SnmpTarget &target, const QString &library = QString());

// Ends the waits of the sessions that watch it, from any thread: a request
// under way gives up at once, and later ones are not sent. One-way: what is
// cancelled stays cancelled. (net-snmp's v3 engine discovery, which happens
// inside the opening of a session, cannot be interrupted.)
class SnmpCancel
{
public:
    SnmpCancel();
    ~SnmpCancel();
    SnmpCancel(const SnmpCancel &) = delete;
    SnmpCancel &operator=(const SnmpCancel &) = delete;

    void cancel();
    bool isCancelled() const { return m_cancelled.load(); }
    // Readable once cancelled.
    int fd() const { return m_fd; }

private:
    int m_fd = -1;
    std::atomic_bool m_cancelled { false };
};

class AgentSession
{
public:
    explicit AgentSession(const SnmpTarget &target, const SnmpCancel *cancel = nullptr);
    ~AgentSession();
    AgentSession(const AgentSession &) = delete;
    AgentSession &operator=(const AgentSession &) = delete;

    // Opens the session (for v3 this discovers the engine and localises the
    // keys, waiting on the agent). False with the reason in error().
    bool open();
    bool isOpen() const { return m_session != nullptr; }

    // A GetRequest for the given identifiers: one value each, in order.
    bool get(const QList<Oid> &oids, QList<SnmpValue> &values);

    // Walks table columns side by side with GetBulk: values[i] receives the
    // instances of columns[i] in order. maxRepetitions is shared among the
    // columns still being walked. expectedRows, when known (> 0), is how many
    // instances a column is likely to have: requests near the end then ask
    // for what is left and one more, to see the column end, instead of a
    // full share the agent would mostly fetch for nothing. A column that
    // turns out longer is walked on in full shares.
    bool bulkWalk(
        const QList<Oid> &columns, int maxRepetitions, QList<QList<SnmpValue>> &values, int expectedRows = 0);

    QString error() const { return m_error; }
    int errorCode() const { return m_errorCode; }
    // The last request failed but the agent did answer (an error status).
    bool answered() const { return m_answered; }

    static int timeoutError();
    static int decryptionError();
    static int cancelledError();

    // Sets net-snmp up once per process: it reads no configuration or
    // persistent files of its own (the user's ~/.snmp stays untouched).
    static void initLibrary();

    // What the response callback reports to request(); kept with the session,
    // which may call back about a request still out when it closes. An answer
    // without an error status goes to take while net-snmp still holds it.
    struct Wait
    {
        bool waiting = false;
        int status = 0;
        int error = 0;
        long errorStatus = 0;
        const std::function<void(const snmp_pdu *)> *take = nullptr;
        bool report = false; // a report is the answer (an engine discovery)
    };

private:
    using Take = std::function<void(const snmp_pdu *)>;
    bool request(snmp_pdu *pdu, const Take &take);
    bool discover();
    // Sends pdu without waiting, its outcome to go to wait.
    bool send(snmp_pdu *pdu, const Take &take, Wait &wait);
    // Lets net-snmp work (answers, time-outs, retries) until done() holds or
    // the session is cancelled (false).
    bool pump(const std::function<bool()> &done);
    // The outcome of a request that is no longer waiting: true if answered
    // without an error status, else false with the reason in error().
    bool finish(Wait &wait);
    // Stops listening for the requests still out, after a failure.
    void abandon();
    void fail(int code, const QString &library = QString());

    SnmpTarget m_target;
    const SnmpCancel *m_cancel = nullptr;
    // A walk keeps this many requests out at once, each on columns of its own.
    static constexpr int walkChains = 2;
    Wait m_waits[walkChains];
    void *m_session = nullptr;
    QString m_error;
    int m_errorCode = 0;
    bool m_answered = false;
};

Q_DECLARE_METATYPE(SnmpTarget)

// Which password a v3 error blames, so a wrong one is not offered again.
enum class CredentialFault { None, Auth, Priv };
CredentialFault credentialFault(int snmpErr);
