#include "ssh_prompts.h"

#include "console/ssh_connection.h"

#include <QDialog>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QVBoxLayout>

namespace {
void askHostKey(QWidget *parent, SshConnection *ssh, const QString &host, const QString &fingerprint,
    const QString &keyType)
{
    auto *box = new QMessageBox(QMessageBox::Question, QStringLiteral("Tarnwick"),
        QStringLiteral("The host key of %1 is not known yet.\n\nIts %2 key fingerprint is\n%3\n\n"
                       "Check it against the device before you accept it.")
            .arg(host, keyType, fingerprint),
        QMessageBox::NoButton, parent);
    box->setObjectName(QStringLiteral("SshHostKeyQuestion"));
    box->setTextFormat(Qt::PlainText);
    box->setAttribute(Qt::WA_DeleteOnClose);
    QPushButton *save = box->addButton(QStringLiteral("Accept and save"), QMessageBox::AcceptRole);
    QPushButton *once = box->addButton(QStringLiteral("Accept once"), QMessageBox::YesRole);
    QPushButton *cancel = box->addButton(QStringLiteral("Cancel"), QMessageBox::RejectRole);
    box->setDefaultButton(cancel);
    box->setEscapeButton(cancel);
    QPointer<SshConnection> connection(ssh);
    QObject::connect(box, &QMessageBox::finished, box, [box, save, once, connection] {
        if (!connection)
            return;
        QAbstractButton *chosen = box->clickedButton();
        connection->answerHostKey(chosen == save ? SshConnection::HostKeyAnswer::AcceptAndSave
                : chosen == once                 ? SshConnection::HostKeyAnswer::AcceptOnce
                                                 : SshConnection::HostKeyAnswer::Cancel);
    });
    box->open();
}

void askSecrets(QWidget *parent, SshConnection *ssh, const QString &title, const QString &instruction,
    const QStringList &prompts, const QList<bool> &echo)
{
    auto *dialog = new QDialog(parent);
    dialog->setObjectName(QStringLiteral("SshSecretsDialog"));
    dialog->setWindowTitle(QStringLiteral("Tarnwick - %1").arg(title));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    auto *layout = new QVBoxLayout(dialog);
    // Names, instructions and prompts come from the server: shown as plain
    // text, so no server can put rich text (links, images) in the dialog.
    const auto plainLabel = [dialog](const QString &text) {
        auto *label = new QLabel(text, dialog);
        label->setTextFormat(Qt::PlainText);
        return label;
    };
    if (!instruction.isEmpty())
        layout->addWidget(plainLabel(instruction));
    auto *form = new QFormLayout;
    QList<QLineEdit *> edits;
    for (int i = 0; i < prompts.size(); ++i) {
        auto *edit = new QLineEdit(dialog);
        edit->setEchoMode(echo.value(i) ? QLineEdit::Normal : QLineEdit::Password);
        form->addRow(plainLabel(prompts[i]), edit);
        edits << edit;
    }
    layout->addLayout(form);
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, dialog);
    layout->addWidget(buttons);
    QObject::connect(buttons, &QDialogButtonBox::accepted, dialog, &QDialog::accept);
    QObject::connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::reject);
    QPointer<SshConnection> connection(ssh);
    QObject::connect(dialog, &QDialog::finished, dialog, [edits, connection](int result) {
        if (!connection)
            return;
        if (result != QDialog::Accepted)
            return connection->cancelSecrets();
        QStringList answers;
        for (QLineEdit *edit : edits) {
            answers << edit->text();
            edit->clear(); // nothing of a secret stays in the window
        }
        connection->answerSecrets(answers);
    });
    dialog->open();
}
} // namespace

void attachSshPrompts(QWidget *parent, SshConnection *ssh)
{
    QObject::connect(ssh, &SshConnection::hostKeyQuestion, parent,
        [parent, ssh](const QString &host, const QString &fingerprint, const QString &keyType) {
            askHostKey(parent, ssh, host, fingerprint, keyType);
        });
    QObject::connect(ssh, &SshConnection::secretsRequested, parent,
        [parent, ssh](const QString &title, const QString &instruction, const QStringList &prompts,
            const QList<bool> &echo) { askSecrets(parent, ssh, title, instruction, prompts, echo); });
}
