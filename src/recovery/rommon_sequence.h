#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <array>

class QTimer;

// The ROMMON TFTP download typed into a device's ROM monitor: five monitor
// variable assignments and "tftpdnld", one line every step interval (500 ms)
// so the monitor's slow serial input is not overrun. Nothing the device
// answers is read; its prompts are left to the user at the terminal.
//
// The five texts are the panel's boxes. Each line is built from the text as it
// is when that line goes out, unchecked and untrimmed; an empty text gives the
// bare assignment ("TFTP_FILE=" and CR).
//
// The steps run on five one-shot timers, Timer4 to Timer8 (their objectNames),
// one after the other: start() sends the first line (ended CR LF) and starts
// Timer4; each timer sends its line (ended CR alone) and starts the next one;
// Timer8 sends "tftpdnld". Nothing stops a second start() while a run is
// under way: the runs then share the timers and their lines interleave. A
// start() while Timer4 is still counting joins that run rather than resetting
// its timer, as enabling an enabled timer has always done.
//
// Signals: lineReady(line) for every line to write to the serial port, in
// order; finished() after "tftpdnld". The receiver may call stop() from
// lineReady (the port has gone): nothing further is then sent.
class RommonSequence : public QObject
{
    Q_OBJECT
public:
    enum Field { IpAddress = 0, SubnetMask, DefaultGateway, TftpServer, FileName };
    static constexpr int fieldCount = 5;
    static constexpr int defaultStepInterval = 500;

    explicit RommonSequence(QObject *parent = nullptr);

    void setText(Field field, const QString &text) { m_texts[field] = text; }
    QString text(Field field) const { return m_texts[field]; }

    // Milliseconds between lines; tests shorten it.
    void setStepInterval(int ms);
    int stepInterval() const { return m_stepInterval; }

    // Sends the first line and starts Timer4.
    void start();
    // Stops all five timers: the run (or runs) send nothing more.
    void stop();
    bool isRunning() const;

    // The line sent at step 0 (start) to 5 ("tftpdnld") for the given texts.
    static QByteArray line(int step, const std::array<QString, fieldCount> &texts);

Q_SIGNALS:
    void lineReady(const QByteArray &line);
    void finished();

private:
    void tick(int step);

    std::array<QString, fieldCount> m_texts;
    std::array<QTimer *, 5> m_timers {};
    int m_stepInterval = defaultStepInterval;
};
