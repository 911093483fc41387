#include "http/http_server_dialog.h"

#include <QCheckBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QSpinBox>

HttpServerDialog::HttpServerDialog(quint16 port, QWidget *parent)
    : QDialog(parent)
    , m_enabled(new QCheckBox(tr("Serve the access list's folders over HTTP"), this))
    , m_port(new QSpinBox(this))
{
    setObjectName(QStringLiteral("HttpServerDialog"));
    setWindowTitle(tr("HTTP Server"));
    m_enabled->setObjectName(QStringLiteral("chkHttpServer"));
    m_port->setObjectName(QStringLiteral("txtHttpPort"));
    m_port->setRange(1, 65535);
    m_port->setValue(port > 0 ? port : 8080);
    m_enabled->setChecked(port > 0);
    m_port->setEnabled(port > 0);
    connect(m_enabled, &QCheckBox::toggled, m_port, &QWidget::setEnabled);

    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto *layout = new QFormLayout(this);
    layout->addRow(m_enabled);
    layout->addRow(tr("Port:"), m_port);
    layout->addRow(buttons);
}

quint16 HttpServerDialog::port() const
{
    return m_enabled->isChecked() ? quint16(m_port->value()) : 0;
}
