#include "config_window.h"

#include "capture/rich_text_document.h"
#include "capture/rtf_reader.h"
#include "capture/rtf_writer.h"
#include "util/message_box.h"
#include "util/twips.h"

#include <QFile>
#include <QFileDialog>
#include <QMenuBar>
#include <QResizeEvent>
#include <QSaveFile>
#include <QTextCursor>
#include <QTextEdit>

namespace {

const QString presetName = QStringLiteral("config.rtf");

QString runFileDialog(QWidget *parent, const QString &preset, QFileDialog::AcceptMode mode)
{
    QFileDialog dialog(parent,
        mode == QFileDialog::AcceptOpen ? QStringLiteral("Load Config") : QStringLiteral("Save Config"));
    dialog.setAcceptMode(mode);
    dialog.setFileMode(mode == QFileDialog::AcceptOpen ? QFileDialog::ExistingFile : QFileDialog::AnyFile);
    dialog.setNameFilters({ QStringLiteral("Rich Text Format (*.rtf)"), QStringLiteral("All files (*)") });
    dialog.setDefaultSuffix(QStringLiteral("rtf"));
    dialog.selectFile(preset);
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty())
        return {};
    return dialog.selectedFiles().constFirst();
}

} // namespace

ConfigWindow::ConfigWindow(QWidget *parent)
    : ChildWindow(parent)
    , m_menuBar(new QMenuBar(this))
    , m_configBox(new QTextEdit(this))
    , m_logBox(new QTextEdit(this))
{
    setObjectName(QStringLiteral("Config"));
    setWindowTitle(QStringLiteral("Config"));

    m_load = m_menuBar->addAction(QStringLiteral("Load Config"));
    m_load->setObjectName(QStringLiteral("MnuLoadConfig"));
    m_save = m_menuBar->addAction(QStringLiteral("Save Config"));
    m_save->setObjectName(QStringLiteral("MnuSaveConfig"));
    m_capture = m_menuBar->addAction(QStringLiteral("Capture Config"));
    m_capture->setObjectName(QStringLiteral("MnuCaptureConfig"));
    m_stop = m_menuBar->addAction(QStringLiteral("Stop Capture"));
    m_stop->setObjectName(QStringLiteral("MnuStopCapture"));
    m_stop->setEnabled(false);
    connect(m_load, &QAction::triggered, this, &ConfigWindow::loadConfigClicked);
    connect(m_save, &QAction::triggered, this, &ConfigWindow::saveConfigClicked);
    connect(m_capture, &QAction::triggered, this, &ConfigWindow::captureConfig);
    connect(m_stop, &QAction::triggered, this, &ConfigWindow::stopCapture);

    m_configBox->setObjectName(QStringLiteral("Configbox"));
    m_configBox->setAcceptRichText(true);
    m_configBox->setLineWrapMode(QTextEdit::NoWrap);

    m_logBox->setObjectName(QStringLiteral("logbox"));
    QFont courier(QStringLiteral("Courier"));
    courier.setStyleHint(QFont::TypeWriter);
    m_logBox->setFont(courier);
    m_logBox->lower();

    m_openDialog = [](QWidget *parent, const QString &preset) {
        return runFileDialog(parent, preset, QFileDialog::AcceptOpen);
    };
    m_saveDialog = [](QWidget *parent, const QString &preset) {
        return runFileDialog(parent, preset, QFileDialog::AcceptSave);
    };
    resize(tw::twips(7000), tw::twips(5000));
    layoutChildren();
}

void ConfigWindow::captureConfig()
{
    m_capture->setEnabled(false);
    m_stop->setEnabled(true);
    if (!m_capturing) {
        m_capturing = true;
        Q_EMIT capturingChanged(true);
    }
}

void ConfigWindow::stopCapture()
{
    m_capture->setEnabled(true);
    m_stop->setEnabled(false);
    if (m_capturing) {
        m_capturing = false;
        Q_EMIT capturingChanged(false);
    }
}

void ConfigWindow::appendRun(const QString &text, const QColor &colour)
{
    // Always at the very end, whatever the user has selected or typed.
    QTextCursor cursor(m_configBox->document());
    cursor.movePosition(QTextCursor::End);
    QTextCharFormat format;
    format.setForeground(colour);
    cursor.insertText(text, format);
}

void ConfigWindow::CaptureFileName(const QString &path)
{
    appendRun(path, Qt::red);
}

void ConfigWindow::CaptureData(const QByteArray &data)
{
    // Blocks are 8-bit characters; a binary upload shows as such, never breaks.
    appendRun(QString::fromLatin1(data), Qt::blue);
}

bool ConfigWindow::loadConfig(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QByteArray content = file.readAll();
    // A file without the RTF header fails to load like an unreadable one: the
    // view keeps what it shows rather than taking the file's raw text.
    if (!content.startsWith("{\\rtf"))
        return false;
    tw::setDocumentRichText(*m_configBox->document(), RtfReader::read(content));
    return true;
}

bool ConfigWindow::saveConfig(const QString &path)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        tw::messageBox(
            QStringLiteral("Cannot write %1: %2").arg(path, file.errorString()), QMessageBox::Critical);
        return false;
    }
    file.write(RtfWriter::write(tw::richTextFromDocument(*m_configBox->document())));
    if (!file.commit()) {
        tw::messageBox(
            QStringLiteral("Cannot write %1: %2").arg(path, file.errorString()), QMessageBox::Critical);
        return false;
    }
    return true;
}

void ConfigWindow::loadConfigClicked()
{
    // A cancelled dialog still loads "config.rtf" from the working folder, and
    // nothing is said when that is missing: long-standing behaviour users rely on.
    QString chosen = m_openDialog(this, presetName);
    if (chosen.isEmpty())
        chosen = presetName;
    loadConfig(chosen);
}

void ConfigWindow::saveConfigClicked()
{
    // Likewise a cancelled save writes "config.rtf" in the working folder.
    QString chosen = m_saveDialog(this, presetName);
    if (chosen.isEmpty())
        chosen = presetName;
    saveConfig(chosen);
}

void ConfigWindow::resizeEvent(QResizeEvent *event)
{
    ChildWindow::resizeEvent(event);
    layoutChildren();
}

void ConfigWindow::layoutChildren()
{
    const int menuHeight = m_menuBar->sizeHint().height();
    m_menuBar->setGeometry(0, 0, width(), menuHeight);
    // Configbox sits 100 twips in and is 200 twips narrower and lower than the
    // area under the menu bar, leaving the same margin right and bottom.
    const QRect inner(0, menuHeight, width(), height() - menuHeight);
    const QRect box(inner.left() + tw::twips(100), inner.top() + tw::twips(100),
        qMax(0, inner.width() - tw::twips(200)), qMax(0, inner.height() - tw::twips(200)));
    m_configBox->setGeometry(box);
    m_logBox->setGeometry(box);
}
