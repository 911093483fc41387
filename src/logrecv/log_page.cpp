#include "log_page.h"

#include "logrecv/log_options.h"
#include "util/cls_resolve.h"
#include "util/mc_popup_menu.h"
#include "util/message_box.h"

#include <QCheckBox>
#include <QFileDialog>
#include <QInputDialog>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTextCursor>
#include <QTextDocument>

namespace {

LogPage::FolderPicker &folderPicker()
{
    static LogPage::FolderPicker picker = [](QWidget *parent, const QString &title, const QString &start) {
        return QFileDialog::getExistingDirectory(parent, title, start, QFileDialog::ShowDirsOnly);
    };
    return picker;
}

LogPage::FindPrompt &findPrompt()
{
    static LogPage::FindPrompt prompt = [](QWidget *parent, const QString &last) {
        return QInputDialog::getText(
            parent, QStringLiteral("Find"), QStringLiteral("Find what:"), QLineEdit::Normal, last);
    };
    return prompt;
}

} // namespace

LogPage::LogPage(
    QPlainTextEdit *logbox, QCheckBox *check1, QPushButton *command7, QLabel *label16, LogOptions *options)
    : QObject(logbox)
    , m_logbox(logbox)
    , m_check1(check1)
    , m_label16(label16)
    , m_options(options)
{
    setObjectName(QStringLiteral("LogPage"));
    if (m_check1)
        connect(m_check1, &QCheckBox::clicked, m_options, &LogOptions::setLogToFile);
    if (command7)
        connect(command7, &QPushButton::clicked, this, &LogPage::choosePath);
    connect(m_options, &LogOptions::logToFileChanged, this, &LogPage::showOptions);
    connect(m_options, &LogOptions::folderChanged, this, &LogPage::showOptions);
    showOptions();

    m_logbox->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(m_logbox, &QWidget::customContextMenuRequested, this,
        [this](const QPoint &pos) { showPopup(m_logbox->viewport()->mapToGlobal(pos)); });
}

QStringList LogPage::popupCaptions()
{
    return { QStringLiteral("Copy"), QStringLiteral("Find"), QStringLiteral("IP>Hostname") };
}

void LogPage::showPopup(const QPoint &globalPos)
{
    mcPopupMenu menu;
    const QStringList captions = popupCaptions();
    for (int i = 0; i < captions.size(); ++i)
        menu.Add(quint32(PopupCopy + i), captions.at(i));
    runPopupItem(menu.Show(m_logbox, globalPos.x(), globalPos.y()));
}

void LogPage::runPopupItem(int id)
{
    if (!m_logbox)
        return;
    switch (id) {
    case PopupCopy:
        m_logbox->copy();
        break;
    case PopupFind: {
        const QString text = findPrompt()(m_logbox, m_lastFind);
        if (!text.isEmpty())
            find(text);
        break;
    }
    case PopupHostName:
        replaceSelectionByHostName();
        break;
    default:
        break;
    }
}

void LogPage::choosePath()
{
    const QString chosen = folderPicker()(m_logbox ? m_logbox->window() : nullptr,
        QStringLiteral("Choose folder to store log files"), m_options->effectiveFolder());
    if (!chosen.isEmpty())
        m_options->setFolder(chosen);
}

bool LogPage::find(const QString &text)
{
    m_lastFind = text;
    if (!m_logbox || text.isEmpty())
        return false;
    QTextDocument *document = m_logbox->document();
    QTextCursor found = document->find(text, m_logbox->textCursor());
    if (found.isNull())
        found = document->find(text, 0);
    if (found.isNull()) {
        tw::messageBox(QStringLiteral("Cannot find \"%1\"").arg(text));
        return false;
    }
    m_logbox->setTextCursor(found);
    m_logbox->ensureCursorVisible();
    return true;
}

void LogPage::replaceSelectionByHostName()
{
    if (!m_logbox)
        return;
    QTextCursor cursor = m_logbox->textCursor();
    const QString name = clsResolve().GetHostNameFromIP(cursor.selectedText().trimmed());
    if (name.isEmpty())
        return;
    cursor.insertText(name);
    m_logbox->setTextCursor(cursor);
}

void LogPage::setFolderPicker(FolderPicker picker)
{
    folderPicker() = std::move(picker);
}

void LogPage::setFindPrompt(FindPrompt prompt)
{
    findPrompt() = std::move(prompt);
}

void LogPage::showOptions()
{
    if (m_check1)
        m_check1->setChecked(m_options->logToFile());
    if (m_label16)
        m_label16->setText(m_options->effectiveFolder());
}

namespace tw {
LogPage *attachLogPage(
    QPlainTextEdit *logbox, QCheckBox *check1, QPushButton *command7, QLabel *label16, LogOptions *options)
{
    if (!logbox || !options)
        return nullptr;
    return new LogPage(logbox, check1, command7, label16, options);
}
} // namespace tw
