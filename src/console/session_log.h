#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QFile>
#include <QObject>
#include <QString>

// "Log Session...": a copy of one console's traffic from the device in a
// file, either the text as shown (escapes gone, line ends "\n") or the raw
// bytes. A log always appends to its file.
//
// The file stays open while logging and is flushed after every block, so a
// crash loses nothing that reached the console. A write that fails (disk
// full, folder gone) stops logging and emits failed(message); the console
// itself carries on. started() and stopped() follow every start and end of
// logging, for the caption.
class SessionLog : public QObject
{
    Q_OBJECT
public:
    enum class Mode { Text, Raw };

    explicit SessionLog(QObject *parent = nullptr);
    ~SessionLog() override;

    // Opens path for appending; false (and errorString()) when it cannot.
    bool start(const QString &path, Mode mode);
    void stop();
    bool isActive() const { return m_file.isOpen(); }
    Mode mode() const { return m_mode; }
    QString path() const { return m_file.fileName(); }
    QString errorString() const { return m_error; }

    // What the console showed (Text) and what the device sent (Raw); each
    // call is ignored in the other mode.
    void writeText(const QString &text);
    void writeRaw(const QByteArray &bytes);

    // The file name offered for a host: "<host>-<YYYYMMDD-HHMMSS>.log", with
    // characters that cannot be in a file name replaced.
    static QString offeredName(const QString &host, const QDateTime &when);

Q_SIGNALS:
    void failed(const QString &message);
    void started();
    void stopped();

private:
    void write(const QByteArray &bytes);

    QFile m_file;
    Mode m_mode = Mode::Text;
    QString m_error;
    bool m_lastWasCr = false;
};
