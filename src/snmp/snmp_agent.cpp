#include "snmp/snmp_agent.h"

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/library/large_fd_set.h>
// clang-format on

#include <QHostAddress>
#include <QMutex>
#include <QStringList>

#include <algorithm>
#include <cerrno>
#include <mutex>

#include <sys/eventfd.h>
#include <unistd.h>

namespace {

// net-snmp keeps its USM users in one process-wide list that session opening
// and closing change; sessions of different consoles may do that at once.
QMutex &libraryLock()
{
    static QMutex lock;
    return lock;
}

struct Proto
{
    const oid *id;
    size_t length;
};

Proto authProto(SnmpTarget::Auth auth)
{
    switch (auth) {
    case SnmpTarget::Auth::Md5:
        return { usmHMACMD5AuthProtocol, OID_LENGTH(usmHMACMD5AuthProtocol) };
    case SnmpTarget::Auth::Sha1:
        return { usmHMACSHA1AuthProtocol, OID_LENGTH(usmHMACSHA1AuthProtocol) };
    case SnmpTarget::Auth::Sha224:
        return { usmHMAC128SHA224AuthProtocol, OID_LENGTH(usmHMAC128SHA224AuthProtocol) };
    case SnmpTarget::Auth::Sha256:
        return { usmHMAC192SHA256AuthProtocol, OID_LENGTH(usmHMAC192SHA256AuthProtocol) };
    case SnmpTarget::Auth::Sha384:
        return { usmHMAC256SHA384AuthProtocol, OID_LENGTH(usmHMAC256SHA384AuthProtocol) };
    case SnmpTarget::Auth::Sha512:
        return { usmHMAC384SHA512AuthProtocol, OID_LENGTH(usmHMAC384SHA512AuthProtocol) };
    }
    return { usmHMACSHA1AuthProtocol, OID_LENGTH(usmHMACSHA1AuthProtocol) };
}

Proto privProto(SnmpTarget::Priv priv)
{
    switch (priv) {
    case SnmpTarget::Priv::Des:
        return { usmDESPrivProtocol, OID_LENGTH(usmDESPrivProtocol) };
    case SnmpTarget::Priv::Aes128:
        return { usmAESPrivProtocol, OID_LENGTH(usmAESPrivProtocol) };
    case SnmpTarget::Priv::Aes192:
        return { usmAES192PrivProtocol, OID_LENGTH(usmAES192PrivProtocol) };
    case SnmpTarget::Priv::Aes256:
        return { usmAES256PrivProtocol, OID_LENGTH(usmAES256PrivProtocol) };
    }
    return { usmAESPrivProtocol, OID_LENGTH(usmAESPrivProtocol) };
}

// Takes what net-snmp reports about the request out on a session, the way its
// own synchronous call does, into the session's Wait.
int onResponse(int operation, netsnmp_session *, int, netsnmp_pdu *pdu, void *magic)
{
    auto *wait = static_cast<AgentSession::Wait *>(magic);
    if (!wait->waiting)
        return 1;
    switch (operation) {
    case NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE:
        if (pdu->command == SNMP_MSG_RESPONSE) {
            // Read in place: the library frees the answer once we return.
            wait->errorStatus = pdu->errstat;
            if (pdu->errstat == SNMP_ERR_NOERROR && wait->take)
                (*wait->take)(pdu);
            wait->status = STAT_SUCCESS;
            wait->waiting = false;
        } else if (pdu->command == SNMP_MSG_REPORT && wait->report) {
            // The answer a discovery probe asks for: it carries the engine ID.
            (*wait->take)(pdu);
            wait->status = STAT_SUCCESS;
            wait->waiting = false;
        } else if (pdu->command == SNMP_MSG_REPORT) {
            // A USM report says what the agent made of us in its own words.
            // net-snmp answers a notInTimeWindow report itself, by sending the
            // request again with the agent's clock: that answer is still to come.
            wait->error = snmpv3_get_report_type(pdu);
            wait->status = STAT_ERROR;
            wait->waiting = wait->error == SNMPERR_NOT_IN_TIME_WINDOW;
        } else {
            wait->error = SNMPERR_PROTOCOL;
            wait->status = STAT_ERROR;
            wait->waiting = false;
        }
        break;
    case NETSNMP_CALLBACK_OP_TIMED_OUT:
        wait->error = SNMPERR_TIMEOUT;
        wait->status = STAT_TIMEOUT;
        wait->waiting = false;
        break;
    case NETSNMP_CALLBACK_OP_SEC_ERROR:
        // An answer that failed its security checks: a genuine one may follow.
        if (!wait->error)
            wait->error = SNMPERR_GENERR;
        break;
    case NETSNMP_CALLBACK_OP_RESEND:
        break;
    default: // the send failed or the session is going
        wait->error = SNMPERR_ABORT;
        wait->status = STAT_ERROR;
        wait->waiting = false;
        break;
    }
    return 1;
}

} // namespace

SnmpCancel::SnmpCancel()
    : m_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{ }

SnmpCancel::~SnmpCancel()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

void SnmpCancel::cancel()
{
    m_cancelled = true;
    if (m_fd >= 0) {
        const quint64 one = 1;
        [[maybe_unused]] const ssize_t written = ::write(m_fd, &one, sizeof one);
    }
}

void AgentSession::initLibrary()
{
    static std::once_flag once;
    std::call_once(once, [] {
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
        netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
        // Identifiers are numeric throughout: no MIB files are needed or read.
        // The library's default module list would only fill stderr with
        // "Cannot find module" where the MIB files are not installed; a MIBS
        // the user set is left alone.
        netsnmp_set_mib_directory("");
        if (!qEnvironmentVariableIsSet("MIBS"))
            qputenv("MIBS", "");
        init_snmp("tarnwick");
    });
}

QString agentErrorText(int snmpErr, const SnmpTarget &target, const QString &library)
{
    switch (snmpErr) {
    case SNMPERR_TIMEOUT:
        return QStringLiteral("No response from %1 (%2 tries)").arg(target.host).arg(target.tries);
    case SNMPERR_UNKNOWN_USER_NAME:
    case SNMPERR_USM_UNKNOWNSECURITYNAME:
        return QStringLiteral("Unknown user name \"%1\"").arg(target.user);
    case SNMPERR_AUTHENTICATION_FAILURE:
    case SNMPERR_USM_AUTHENTICATIONFAILURE:
        return QStringLiteral("Wrong digest: check the authentication password and protocol");
    case SNMPERR_DECRYPTION_ERR:
    case SNMPERR_USM_DECRYPTIONERROR:
        return QStringLiteral("Decryption error: check the privacy password and protocol");
    case SNMPERR_NOT_IN_TIME_WINDOW:
    case SNMPERR_USM_NOTINTIMEWINDOW:
        return QStringLiteral("Not in time window: the agent's clock or boot count disagrees");
    case SNMPERR_UNKNOWN_ENG_ID:
    case SNMPERR_USM_UNKNOWNENGINEID:
        return QStringLiteral("Unknown engine ID");
    case SNMPERR_UNSUPPORTED_SEC_LEVEL:
    case SNMPERR_USM_UNSUPPORTEDSECURITYLEVEL:
        return QStringLiteral("Security level not supported for user \"%1\"").arg(target.user);
    case SNMPERR_USM_ENCRYPTIONERROR:
        return QStringLiteral("Encryption error: check the privacy protocol");
    case SNMPERR_ABORT:
        return QStringLiteral("Cancelled");
    case SNMPERR_BAD_ADDRESS:
    case SNMPERR_BAD_PARSE:
        return QStringLiteral("Cannot use the address %1").arg(target.host);
    default:
        return library.isEmpty() ? QStringLiteral("SNMP error %1").arg(snmpErr) : library;
    }
}

AgentSession::AgentSession(const SnmpTarget &target, const SnmpCancel *cancel)
    : m_target(target)
    , m_cancel(cancel)
{ }

AgentSession::~AgentSession()
{
    if (m_session) {
        QMutexLocker lock(&libraryLock());
        snmp_sess_close(m_session);
    }
}

void AgentSession::fail(int code, const QString &library)
{
    m_errorCode = code;
    m_error = agentErrorText(code, m_target, library);
}

bool AgentSession::open()
{
    initLibrary();
    if (m_cancel && m_cancel->isCancelled()) {
        fail(SNMPERR_ABORT);
        return false;
    }
    const bool v6 = QHostAddress(m_target.host).protocol() == QAbstractSocket::IPv6Protocol;
    QByteArray peer = (v6 ? QStringLiteral("udp6:[%1]:%2") : QStringLiteral("udp:%1:%2"))
                          .arg(m_target.host)
                          .arg(m_target.port)
                          .toLatin1();
    QByteArray community = m_target.community.toLatin1();
    QByteArray user = m_target.user.toUtf8();
    QByteArray context = m_target.context.toUtf8();
    QByteArray authPassword = m_target.authPassword.toUtf8();
    QByteArray privPassword = m_target.privPassword.toUtf8();

    netsnmp_session s;
    snmp_sess_init(&s);
    s.peername = peer.data();
    s.timeout = long(qMax(1, m_target.timeoutMs)) * 1000;
    s.retries = qMax(1, m_target.tries) - 1;
    if (m_target.version == 3) {
        s.version = SNMP_VERSION_3;
        s.securityName = user.data();
        s.securityNameLen = size_t(user.size());
        s.contextName = context.data();
        s.contextNameLen = size_t(context.size());
        s.securityLevel = m_target.level == SnmpTarget::Level::AuthPriv ? SNMP_SEC_LEVEL_AUTHPRIV
            : m_target.level == SnmpTarget::Level::AuthNoPriv           ? SNMP_SEC_LEVEL_AUTHNOPRIV
                                                                        : SNMP_SEC_LEVEL_NOAUTH;
        if (m_target.needsAuth()) {
            const Proto auth = authProto(m_target.auth);
            s.securityAuthProto = const_cast<oid *>(auth.id);
            s.securityAuthProtoLen = auth.length;
            s.securityAuthKeyLen = USM_AUTH_KU_LEN;
            if (generate_Ku(auth.id, u_int(auth.length),
                    reinterpret_cast<const u_char *>(authPassword.constData()), size_t(authPassword.size()),
                    s.securityAuthKey, &s.securityAuthKeyLen)
                != SNMPERR_SUCCESS) {
                fail(SNMPERR_GENERR,
                    QStringLiteral("The authentication password needs at least 8 characters"));
                return false;
            }
        }
        if (m_target.needsPriv()) {
            const Proto auth = authProto(m_target.auth);
            const Proto priv = privProto(m_target.priv);
            s.securityPrivProto = const_cast<oid *>(priv.id);
            s.securityPrivProtoLen = priv.length;
            s.securityPrivKeyLen = USM_PRIV_KU_LEN;
            if (generate_Ku(auth.id, u_int(auth.length),
                    reinterpret_cast<const u_char *>(privPassword.constData()), size_t(privPassword.size()),
                    s.securityPrivKey, &s.securityPrivKeyLen)
                != SNMPERR_SUCCESS) {
                fail(SNMPERR_GENERR, QStringLiteral("The privacy password needs at least 8 characters"));
                return false;
            }
        }
    } else {
        s.version = SNMP_VERSION_2c;
        s.community = reinterpret_cast<u_char *>(community.data());
        s.community_len = size_t(community.size());
    }

    QMutexLocker lock(&libraryLock());
    // net-snmp keeps its USM users (name, engine, keys) for the whole process
    // and a new session that names a known user gets that user's keys, not
    // its own: a corrected password would never reach the wire. So users of
    // this name with other keys or protocols go before the session opens.
    // (Two consoles polling one user name with different passwords at once
    // would take turns failing; net-snmp's design leaves no way round that.)
    if (m_target.version == 3) {
        const auto same = [](const oid *a, size_t aLen, const oid *b, size_t bLen) {
            return (!a && !b) || (a && b && snmp_oid_compare(a, aLen, b, bLen) == 0);
        };
        const auto sameKey = [](const u_char *a, size_t aLen, const u_char *b, size_t bLen) {
            return aLen == bLen && (aLen == 0 || (a && b && memcmp(a, b, aLen) == 0));
        };
        for (usmUser *u = usm_get_userList(); u;) {
            usmUser *next = u->next;
            const bool stale = u->secName && user == u->secName
                && ((m_target.needsAuth()
                        && (!same(u->authProtocol, u->authProtocolLen, s.securityAuthProto,
                                s.securityAuthProtoLen)
                            || !sameKey(
                                u->authKeyKu, u->authKeyKuLen, s.securityAuthKey, s.securityAuthKeyLen)))
                    || (m_target.needsPriv()
                        && (!same(u->privProtocol, u->privProtocolLen, s.securityPrivProto,
                                s.securityPrivProtoLen)
                            || !sameKey(
                                u->privKeyKu, u->privKeyKuLen, s.securityPrivKey, s.securityPrivKeyLen))));
            if (stale) {
                usm_remove_user(u);
                usm_free_user(u);
            }
            u = next;
        }
    }
    // net-snmp would discover the engine inside the opening, waiting in a
    // loop of its own that nothing can interrupt: discover() does it instead.
    if (m_target.version == 3)
        s.flags |= SNMP_FLAGS_DONT_PROBE;
    m_session = snmp_sess_open(&s);
    if (!m_session) {
        int libErr = 0, sysErr = 0;
        char *text = nullptr;
        snmp_error(&s, &libErr, &sysErr, &text);
        fail(s.s_snmp_errno ? s.s_snmp_errno : libErr, QString::fromLocal8Bit(text));
        free(text);
        return false;
    }
    lock.unlock();
    if (m_target.version == 3 && !discover()) {
        QMutexLocker closing(&libraryLock());
        snmp_sess_close(m_session);
        m_session = nullptr;
        return false;
    }
    return true;
}

// Engine ID discovery as net-snmp does it (an empty unauthenticated request
// whose report names the engine, then the keys localised for it), but waited
// for in our own loop, so closing a console cuts it short.
bool AgentSession::discover()
{
    netsnmp_session *session = snmp_sess_session(m_session);
    // Else the library probes on its own, inside the first send.
    session->flags |= SNMP_FLAGS_DONT_PROBE;
    netsnmp_pdu *probe = snmp_pdu_create(SNMP_MSG_GET);
    probe->version = SNMP_VERSION_3;
    probe->securityModel = SNMP_SEC_MODEL_USM;
    probe->securityLevel = SNMP_SEC_LEVEL_NOAUTH;
    probe->securityName = strdup("");
    probe->securityNameLen = 0;
    {
        // The probe goes out as the empty user, which the library must know.
        QMutexLocker lock(&libraryLock());
        if (!usm_get_user(nullptr, 0, probe->securityName)) {
            auto *empty = static_cast<usmUser *>(calloc(1, sizeof(usmUser)));
            empty->name = strdup("");
            empty->secName = strdup("");
            empty->authProtocolLen = OID_LENGTH(usmNoAuthProtocol);
            empty->authProtocol = snmp_duplicate_objid(usmNoAuthProtocol, empty->authProtocolLen);
            empty->privProtocolLen = OID_LENGTH(usmNoPrivProtocol);
            empty->privProtocol = snmp_duplicate_objid(usmNoPrivProtocol, empty->privProtocolLen);
            usm_add_user(empty);
        }
    }
    QByteArray engine;
    const Take take = [&engine](const snmp_pdu *report) {
        engine = QByteArray(
            reinterpret_cast<const char *>(report->securityEngineID), qsizetype(report->securityEngineIDLen));
    };
    Wait &wait = m_waits[0];
    m_answered = false;
    if (!send(probe, take, wait)) {
        if (wait.error)
            finish(wait);
        return false;
    }
    wait.report = true;
    pump([&wait] { return !wait.waiting; });
    wait.report = false;
    if (!finish(wait))
        return false;
    if (engine.isEmpty()) {
        fail(SNMPERR_UNKNOWN_ENG_ID);
        return false;
    }
    QMutexLocker lock(&libraryLock());
    if (session->securityEngineIDLen == 0) {
        session->securityEngineID
            = static_cast<u_char *>(netsnmp_memdup(engine.constData(), size_t(engine.size())));
        session->securityEngineIDLen = size_t(engine.size());
    }
    if (session->contextEngineIDLen == 0) {
        session->contextEngineID
            = static_cast<u_char *>(netsnmp_memdup(engine.constData(), size_t(engine.size())));
        session->contextEngineIDLen = size_t(engine.size());
    }
    const int localised = create_user_from_session(session);
    if (localised != SNMPERR_SUCCESS) {
        fail(localised);
        return false;
    }
    return true;
}

bool AgentSession::send(snmp_pdu *pdu, const Take &take, Wait &wait)
{
    wait = Wait();
    if (m_cancel && m_cancel->isCancelled()) {
        snmp_free_pdu(pdu);
        wait.status = STAT_ERROR;
        wait.error = SNMPERR_ABORT;
        return false;
    }
    wait.waiting = true;
    wait.take = &take;
    if (snmp_sess_async_send(m_session, pdu, onResponse, &wait) == 0) {
        snmp_free_pdu(pdu);
        wait = Wait();
        int libErr = 0, sysErr = 0;
        char *text = nullptr;
        snmp_sess_error(m_session, &libErr, &sysErr, &text);
        fail(libErr ? libErr : SNMPERR_GENERR, QString::fromLocal8Bit(text));
        free(text);
        return false;
    }
    return true;
}

// Waits as net-snmp's own synchronous call would (its time-outs and retries),
// but also on the cancel descriptor, so a console closing never waits out a
// silent device.
bool AgentSession::pump(const std::function<bool()> &done)
{
    netsnmp_large_fd_set fds;
    netsnmp_large_fd_set_init(&fds, FD_SETSIZE);
    bool ok = true;
    while (!done()) {
        int count = 0, block = 1;
        timeval timeout {};
        NETSNMP_LARGE_FD_ZERO(&fds);
        snmp_sess_select_info2(m_session, &count, &fds, &timeout, &block);
        if (m_cancel && m_cancel->fd() >= 0) {
            NETSNMP_LARGE_FD_SET(m_cancel->fd(), &fds);
            count = qMax(count, m_cancel->fd() + 1);
        }
        const int ready
            = netsnmp_large_fd_set_select(count, &fds, nullptr, nullptr, block ? nullptr : &timeout);
        if (m_cancel && m_cancel->isCancelled()) {
            ok = false;
            break;
        }
        if (ready > 0) {
            snmp_sess_read2(m_session, &fds);
        } else if (ready == 0) {
            snmp_sess_timeout(m_session);
        } else if (errno != EINTR) {
            ok = false;
            break;
        }
    }
    netsnmp_large_fd_set_cleanup(&fds);
    if (!ok) {
        const bool cancelled = m_cancel && m_cancel->isCancelled();
        for (Wait &wait : m_waits)
            if (wait.waiting) {
                wait.waiting = false;
                wait.status = STAT_ERROR;
                wait.error = cancelled ? SNMPERR_ABORT : SNMPERR_GENERR;
            }
    }
    return ok;
}

bool AgentSession::finish(Wait &wait)
{
    wait.take = nullptr;
    m_answered = wait.status == STAT_SUCCESS;
    if (m_answered && wait.errorStatus == SNMP_ERR_NOERROR)
        return true;
    if (m_answered)
        fail(SNMPERR_GENERR,
            QStringLiteral("The agent answered: %1")
                .arg(QString::fromLatin1(snmp_errstring(int(wait.errorStatus)))));
    else if (wait.status == STAT_TIMEOUT)
        fail(SNMPERR_TIMEOUT);
    else
        fail(wait.error ? wait.error : SNMPERR_GENERR,
            QString::fromLatin1(snmp_api_errstring(wait.error ? wait.error : SNMPERR_GENERR)));
    return false;
}

void AgentSession::abandon()
{
    // net-snmp may still call back about them (an answer, a time-out, the
    // session closing): a Wait that is not waiting ignores that.
    for (Wait &wait : m_waits) {
        wait.waiting = false;
        wait.take = nullptr;
    }
}

bool AgentSession::request(snmp_pdu *pdu, const Take &take)
{
    m_answered = false;
    Wait &wait = m_waits[0];
    if (!send(pdu, take, wait)) {
        if (wait.error)
            finish(wait);
        return false;
    }
    pump([&wait] { return !wait.waiting; });
    return finish(wait);
}

CredentialFault credentialFault(int snmpErr)
{
    if (snmpErr == SNMPERR_AUTHENTICATION_FAILURE || snmpErr == SNMPERR_USM_AUTHENTICATIONFAILURE)
        return CredentialFault::Auth;
    if (snmpErr == SNMPERR_DECRYPTION_ERR || snmpErr == SNMPERR_USM_DECRYPTIONERROR)
        return CredentialFault::Priv;
    return CredentialFault::None;
}

int AgentSession::timeoutError()
{
    return SNMPERR_TIMEOUT;
}

int AgentSession::decryptionError()
{
    return SNMPERR_USM_DECRYPTIONERROR;
}

int AgentSession::cancelledError()
{
    return SNMPERR_ABORT;
}
