#pragma once

#include "tftp/capture_sink.h"
#include "util/child_window.h"

#include <functional>

class QAction;
class QMenuBar;
class QTextEdit;

// The configuration capture window "Config". While capture is on (the
// program-wide capture flag, owned here and read by the TFTP engine through
// CaptureSink), every accepted upload shows up in `Configbox` instead of on
// disk: its path in red, then its blocks in blue, appended at the end with no
// separators. "Capture Config" and "Stop Capture" are the only switches; the
// flag survives hiding the window, which is what its close box does.
// "Load Config" and "Save Config" read and write `Configbox` as RTF.
//
// `logbox` is a second, fixed-pitch view that takes no part in capture; it
// stays behind `Configbox`, which fills the window.
class ConfigWindow : public ChildWindow, public CaptureSink
{
    Q_OBJECT
public:
    explicit ConfigWindow(QWidget *parent = nullptr);

    bool capturing() const override { return m_capturing; }
    void CaptureFileName(const QString &path) override;
    void CaptureData(const QByteArray &data) override;

    QTextEdit *configBox() const { return m_configBox; }

    // Replace the contents with the file's (false, quietly, when unreadable
    // or not RTF: no "{\rtf" at its start);
    // write the whole view (false when the file cannot be written).
    bool loadConfig(const QString &path);
    bool saveConfig(const QString &path);

    // The file dialogs, replaceable so tests never block on them. They get
    // the preset name "config.rtf" and return "" when cancelled.
    using FileDialog = std::function<QString(QWidget *parent, const QString &preset)>;
    void setOpenDialog(FileDialog dialog) { m_openDialog = std::move(dialog); }
    void setSaveDialog(FileDialog dialog) { m_saveDialog = std::move(dialog); }

public Q_SLOTS:
    void captureConfig();
    void stopCapture();
    void loadConfigClicked();
    void saveConfigClicked();

Q_SIGNALS:
    void capturingChanged(bool on);

protected:
    void resizeEvent(QResizeEvent *event) override;

private:
    void appendRun(const QString &text, const QColor &colour);
    void layoutChildren();

    bool m_capturing = false;
    QMenuBar *m_menuBar;
    QTextEdit *m_configBox;
    QTextEdit *m_logBox;
    QAction *m_load;
    QAction *m_save;
    QAction *m_capture;
    QAction *m_stop;
    FileDialog m_openDialog;
    FileDialog m_saveDialog;
};
