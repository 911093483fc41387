#pragma once

#include <QByteArray>
#include <QObject>
#include <QTcpServer>
#include <QTcpSocket>

// A router's Telnet line, as far as the flash backup sees it: listens on
// 127.0.0.1 (ephemeral port), echoes what it is sent, answers " dir flash: "
// with a two-page listing (aligned columns, header, "--More--" prompt wiped by
// backspaces when paged on with a space, summary line, prompt), and reports
// every complete copy command group it receives. Everything received is kept.
class FakeFlashDevice : public QObject
{
    Q_OBJECT
public:
    explicit FakeFlashDevice(QObject *parent = nullptr);

    quint16 port() const { return m_server.serverPort(); }
    QByteArray received() const { return m_received; }
    bool hasClient() const { return m_client != nullptr; }
    void sendToConsole(const QByteArray &text);

    // File names as listed (the data rows, in order).
    static QStringList listedFiles();

Q_SIGNALS:
    // "copy flash:FILE tftp" CR, SERVER CR, CR arrived in full.
    void copyRequested(const QString &file, const QString &server);

private:
    void onReadyRead();

    QTcpServer m_server;
    QTcpSocket *m_client = nullptr;
    QByteArray m_received;
    QByteArray m_pending;
    bool m_paging = false;
};
