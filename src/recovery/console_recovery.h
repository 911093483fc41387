#pragma once

#include <QObject>
#include <QPointer>

class ConsoleSession;
class ConsoleWindow;
class FlashBackupPanel;
class QGroupBox;
class RommonPanel;

// Puts the two device procedures on one console: fills its empty frames
// Frame7 (RommonPanel) and Frame6 (FlashBackupPanel) and answers its menu
// entries MnuRommon and MnuBackUpFlash. Owned by the console window, so it
// lives and dies with it. The app calls attachRecovery() once per console.
//
// ROMMON ("Rommon TFTP", serial consoles only): the menu toggles Frame7 and
// offers this workstation's address in an empty "TFTP Server" box; "Start"
// starts the sequence and hides the frame; its lines go to the serial port
// alone. A sequence stops for good when the serial port is found closed
// (at a line, or when the console's connection changes): what is left of
// it would only reach a closed port, and a half sequence must not resume on
// a port opened again later.
//
// Flash backup ("BackUpFlash", TCP consoles only): the menu clears the list,
// shows Frame6, switches the console's TCP text to the listing reader and
// asks for " dir flash: ". "Show More" pages on (and reads again), "Copy"
// sends the copy commands of the ticked rows to the address of the Options
// page's "TFTP Server Address" box, or says "Please enter an IP address"
// when that is empty or only spaces. After "Copy" the reader stops, so the device's answers
// to the copies (progress marks, errors) reach the terminal instead of being
// read as rows; "Close" puts the panel away and stops the reader, as does
// losing the TCP connection.
class ConsoleRecovery : public QObject
{
    Q_OBJECT
public:
    explicit ConsoleRecovery(ConsoleWindow *console);

    RommonPanel *rommonPanel() const { return m_rommon; }
    FlashBackupPanel *flashPanel() const { return m_flash; }

private:
    void toggleRommon();
    void startRommon();
    void sendRommonLine(const QByteArray &line);
    void showFlashBackup();
    void showMore();
    void copyTicked();
    void closeFlashBackup();
    void onConnectionKindChanged(const QString &kind);

    ConsoleWindow *m_console;
    ConsoleSession *m_session;
    QGroupBox *m_frame6;
    QGroupBox *m_frame7;
    RommonPanel *m_rommon;
    FlashBackupPanel *m_flash;
};

// Attaches the procedures to a console; returns the object (owned by console).
ConsoleRecovery *attachRecovery(ConsoleWindow *console);
