#pragma once

#include "recovery/rommon_sequence.h"

#include <QWidget>
#include <array>

class QLineEdit;
class QPushButton;

// The contents of Frame7 "TFTP Rommon ": the boxes Text2 to Text6 with their
// labels and the "Start" button Command6. The panel owns the RommonSequence
// and keeps its five texts equal to the boxes, so each line goes out with what
// the box holds at that moment. What "Start" does beyond starting the
// sequence (hiding the frame) is up to the console glue: startClicked().
class RommonPanel : public QWidget
{
    Q_OBJECT
public:
    explicit RommonPanel(QWidget *parent = nullptr);

    RommonSequence *sequence() { return &m_sequence; }
    QLineEdit *box(RommonSequence::Field field) const { return m_boxes[field]; }
    QPushButton *startButton() const { return m_start; }

    // Offers this workstation's address as the TFTP server: fills an empty
    // server box, and refreshes a value that the panel itself filled in (the
    // user has not typed over it) once the device's own address is known,
    // picking the local address on the device's network.
    void offerServerAddress();

Q_SIGNALS:
    void startClicked();

private:
    RommonSequence m_sequence;
    std::array<QLineEdit *, RommonSequence::fieldCount> m_boxes {};
    QPushButton *m_start;
    bool m_serverOffered = false;
};
