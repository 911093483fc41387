#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QString>

class QSocketNotifier;

// A pseudo-terminal standing in for a device on a serial line: the console
// opens slavePath() as its serial port; every byte it writes arrives here,
// with the time it arrived (milliseconds since the device was made).
class PtyDevice : public QObject
{
    Q_OBJECT
public:
    struct Chunk
    {
        qint64 at;
        QByteArray bytes;
    };

    PtyDevice();
    ~PtyDevice() override;

    bool isOpen() const { return m_master >= 0; }
    QString slavePath() const { return m_slavePath; }
    QByteArray received() const;
    QList<Chunk> chunks() const { return m_chunks; }
    void clear() { m_chunks.clear(); }

private:
    void readMaster();

    int m_master = -1;
    int m_slave = -1;
    QString m_slavePath;
    QSocketNotifier *m_notifier = nullptr;
    QElapsedTimer m_clock;
    QList<Chunk> m_chunks;
};
