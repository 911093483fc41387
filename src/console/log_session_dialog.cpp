#include "log_session_dialog.h"

#include <QDialogButtonBox>
#include <QFileDialog>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>

LogSessionDialog::LogSessionDialog(const QString &offeredPath, QWidget *parent)
    : QDialog(parent)
{
    setObjectName(QStringLiteral("LogSessionDialog"));
    setWindowTitle(QStringLiteral("Log Session"));
    m_path = new QLineEdit(offeredPath, this);
    m_path->setObjectName(QStringLiteral("LogSessionFile"));
    m_path->setMinimumWidth(m_path->fontMetrics().horizontalAdvance(QLatin1Char('M')) * 40);
    auto *browse = new QPushButton(QStringLiteral("Browse..."), this);
    m_text = new QRadioButton(QStringLiteral("Text as shown"), this);
    m_text->setObjectName(QStringLiteral("LogSessionText"));
    m_text->setChecked(true);
    m_raw = new QRadioButton(QStringLiteral("Raw bytes"), this);
    m_raw->setObjectName(QStringLiteral("LogSessionRaw"));
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);

    auto *layout = new QGridLayout(this);
    layout->addWidget(new QLabel(QStringLiteral("Log file (appended to):"), this), 0, 0, 1, 2);
    layout->addWidget(m_path, 1, 0);
    layout->addWidget(browse, 1, 1);
    layout->addWidget(m_text, 2, 0, 1, 2);
    layout->addWidget(m_raw, 3, 0, 1, 2);
    layout->addWidget(buttons, 4, 0, 1, 2);

    connect(browse, &QPushButton::clicked, this, [this] {
        // No overwrite question: the log is appended to.
        const QString chosen = QFileDialog::getSaveFileName(this, QStringLiteral("Log Session"),
            m_path->text(), QStringLiteral("Log files (*.log);;All files (*)"), nullptr,
            QFileDialog::DontConfirmOverwrite);
        if (!chosen.isEmpty())
            m_path->setText(chosen);
    });
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
}

QString LogSessionDialog::path() const
{
    return m_path->text().trimmed();
}

SessionLog::Mode LogSessionDialog::mode() const
{
    return m_raw->isChecked() ? SessionLog::Mode::Raw : SessionLog::Mode::Text;
}
