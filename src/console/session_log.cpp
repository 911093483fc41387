#include "session_log.h"

#include <QDateTime>

SessionLog::SessionLog(QObject *parent)
    : QObject(parent)
{ }

SessionLog::~SessionLog()
{
    m_file.close();
}

QString SessionLog::offeredName(const QString &host, const QDateTime &when)
{
    QString name = host.isEmpty() ? QStringLiteral("console") : host;
    for (QChar &ch : name) {
        if (ch == QLatin1Char('/') || ch == QLatin1Char('\\') || ch == QLatin1Char(':') || ch.unicode() < 32)
            ch = QLatin1Char('_');
    }
    return name + QLatin1Char('-') + when.toString(QStringLiteral("yyyyMMdd-HHmmss"))
        + QStringLiteral(".log");
}

bool SessionLog::start(const QString &path, Mode mode)
{
    stop();
    m_file.setFileName(path);
    m_mode = mode;
    m_lastWasCr = false;
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Append)) {
        m_error = m_file.errorString();
        return false;
    }
    m_error.clear();
    Q_EMIT started();
    return true;
}

void SessionLog::stop()
{
    if (!m_file.isOpen())
        return;
    m_file.close();
    Q_EMIT stopped();
}

void SessionLog::write(const QByteArray &bytes)
{
    if (!m_file.isOpen() || bytes.isEmpty())
        return;
    if (m_file.write(bytes) != bytes.size() || !m_file.flush()) {
        m_error = m_file.errorString();
        const QString message
            = QStringLiteral("Session log stopped: cannot write %1: %2").arg(m_file.fileName(), m_error);
        // Whatever the file holds stays; the console goes on without it.
        m_file.close();
        Q_EMIT failed(message);
        Q_EMIT stopped();
    }
}

void SessionLog::writeRaw(const QByteArray &bytes)
{
    if (m_mode == Mode::Raw)
        write(bytes);
}

void SessionLog::writeText(const QString &text)
{
    if (m_mode != Mode::Text || !m_file.isOpen())
        return;
    // CR LF, LF CR... every line end the console shows becomes one "\n";
    // a backspace takes back the character before it when it is still here.
    QString out;
    out.reserve(text.size());
    for (const QChar ch : text) {
        const char16_t c = ch.unicode();
        if (c == '\r') {
            out += QLatin1Char('\n');
            m_lastWasCr = true;
            continue;
        }
        if (c == '\n') {
            if (!m_lastWasCr)
                out += QLatin1Char('\n');
            m_lastWasCr = false;
            continue;
        }
        m_lastWasCr = false;
        if (c == '\b') {
            if (!out.isEmpty() && !out.endsWith(QLatin1Char('\n')))
                out.chop(1);
        } else if (c >= 32 || c == '\t') {
            out += ch;
        }
    }
    write(out.toUtf8());
}
