#pragma once

#include <QDialog>

class QCheckBox;
class QSpinBox;

// "HTTP Server...": whether the access list's folders are served over HTTP,
// and on which port. port() is 0 when serving is off, as the setting stores it.
class HttpServerDialog : public QDialog
{
    Q_OBJECT
public:
    explicit HttpServerDialog(quint16 port, QWidget *parent = nullptr);

    quint16 port() const;
    QCheckBox *enabledBox() const { return m_enabled; }
    QSpinBox *portBox() const { return m_port; }

private:
    QCheckBox *m_enabled;
    QSpinBox *m_port;
};
