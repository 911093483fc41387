#pragma once

#include <QDialog>
#include <QList>

class AccessList;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QSlider;

// The "Add Network" dialog (networkadd): composes access-list entries from
// four octet boxes, a prefix slider and two rights, and appends each to the
// list when "Add Network" is pressed. It stays open for more entries and
// checks nothing: duplicates, the untouched "Choose Folder" text and folders
// that do not exist all go in as they are. The caller saves the list after
// the dialog has closed.
//
// Controls (objectName): NetFrame with the octet boxes Text1_0..Text1_3 and
// the dot boxes Text2_0..Text2_2; SubnetFrame with Slider1 and Label1 (the
// mask in display form); Check1 "Devices can read", Check2 "Devices can
// write"; Combo1 (the folder); Command1 "Add Network"; Command2 "Close".
//
// The octet boxes work like an address field: "." moves on, backspace in an
// empty box moves back, only digits go in (three at most), values above 255
// become 255, a leading zero is dropped and the third digit moves on.
class NetworkAddDialog : public QDialog
{
    Q_OBJECT
public:
    // folders and currentFolder are the folder browser's Combo1 entries and
    // current text, offered as the entry's folder.
    NetworkAddDialog(AccessList *list, const QStringList &folders, const QString &currentFolder,
        QWidget *parent = nullptr);

    QLineEdit *octetBox(int i) const { return m_octets.value(i); }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void addNetwork();
    void updateMask(int prefix);
    bool octetKeyPress(int i, QKeyEvent *event);
    void octetKeyRelease(int i, QKeyEvent *event);
    void focusOctet(int i);

    AccessList *m_list;
    QList<QLineEdit *> m_octets;
    QSlider *m_slider;
    QLabel *m_mask;
    QCheckBox *m_read;
    QCheckBox *m_write;
    QComboBox *m_folder;
};
