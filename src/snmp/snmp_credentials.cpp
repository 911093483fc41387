#include "snmp/snmp_credentials.h"

#include <QHash>
#include <QInputDialog>
#include <QLineEdit>
#include <QPointer>

#include <qt6keychain/keychain.h>

namespace {

const QString service = QStringLiteral("Tarnwick");

QHash<QString, QString> &memory()
{
    static QHash<QString, QString> passwords;
    return passwords;
}

std::function<std::optional<QString>(const QString &)> &promptHook()
{
    static std::function<std::optional<QString>(const QString &)> hook;
    return hook;
}

std::optional<QString> ask(const QString &prompt)
{
    if (promptHook())
        return promptHook()(prompt);
    bool ok = false;
    const QString text = QInputDialog::getText(
        nullptr, QObject::tr("SNMP password"), prompt, QLineEdit::Password, QString(), &ok);
    return ok ? std::optional<QString>(text) : std::nullopt;
}

void keep(const QString &key, const QString &password)
{
    memory().insert(key, password);
    auto *job = new QKeychain::WritePasswordJob(service);
    job->setAutoDelete(true);
    job->setKey(key);
    job->setTextData(password);
    job->start(); // no keyring: the password stays in memory for this run
}

} // namespace

QString SnmpCredentials::key(const QString &host, const QString &user, const QString &which)
{
    return QStringLiteral("snmp/v3/%1@%2/%3").arg(user, host, which);
}

void SnmpCredentials::obtain(QObject *context, const QString &key, const QString &prompt,
    std::function<void(std::optional<QString>)> done)
{
    if (memory().contains(key)) {
        done(memory().value(key));
        return;
    }
    auto *job = new QKeychain::ReadPasswordJob(service);
    job->setAutoDelete(true);
    job->setKey(key);
    QObject::connect(job, &QKeychain::Job::finished, context, [key, prompt, done](QKeychain::Job *finished) {
        const auto *read = static_cast<QKeychain::ReadPasswordJob *>(finished);
        if (read->error() == QKeychain::NoError) {
            memory().insert(key, read->textData());
            done(read->textData());
            return;
        }
        const std::optional<QString> typed = ask(prompt);
        if (typed)
            keep(key, *typed);
        done(typed);
    });
    job->start();
}

void SnmpCredentials::forget(const QString &key)
{
    memory().remove(key);
    auto *job = new QKeychain::DeletePasswordJob(service);
    job->setAutoDelete(true);
    job->setKey(key);
    job->start();
}

void SnmpCredentials::setPromptHook(std::function<std::optional<QString>(const QString &)> hook)
{
    promptHook() = std::move(hook);
}
