#include "networkadd_dialog.h"

#include "access/access_list.h"
#include "access/mask_display.h"
#include "util/twips.h"

#include <QCheckBox>
#include <QComboBox>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSlider>
#include <QVBoxLayout>

namespace {

// The leading number of a text, as an octet box's value; more than three
// digits is simply "above 255".
int leadingValue(const QString &text)
{
    int value = 0;
    int digits = 0;
    for (const QChar c : text) {
        if (!c.isDigit())
            break;
        if (++digits > 3)
            return 1000;
        value = value * 10 + c.digitValue();
    }
    return value;
}

} // namespace

NetworkAddDialog::NetworkAddDialog(
    AccessList *list, const QStringList &folders, const QString &currentFolder, QWidget *parent)
    : QDialog(parent)
    , m_list(list)
    , m_slider(new QSlider(Qt::Horizontal))
    , m_mask(new QLabel(QStringLiteral(" 0 . 0 . 0 . 0 ")))
    , m_read(new QCheckBox(QStringLiteral("Devices can read")))
    , m_write(new QCheckBox(QStringLiteral("Devices can write")))
    , m_folder(new QComboBox)
{
    setObjectName(QStringLiteral("networkadd"));
    setWindowTitle(QStringLiteral("Add Network"));

    // The octet boxes stand at fixed places, 500 twips apart; the dot boxes
    // sit over the narrow gaps between them.
    auto *netFrame = new QGroupBox(QStringLiteral("Network"));
    netFrame->setObjectName(QStringLiteral("NetFrame"));
    auto *octetArea = new QWidget;
    const int boxHeight = tw::twips(200) + 8;
    octetArea->setFixedSize(tw::twips(100 + 500 * 4), boxHeight);
    QFont boxFont = font();
    boxFont.setPixelSize(11);
    for (int i = 0; i < 4; ++i) {
        auto *box = new QLineEdit(QStringLiteral("0"), octetArea);
        box->setObjectName(QStringLiteral("Text1_%1").arg(i));
        box->setAlignment(Qt::AlignCenter);
        box->setFont(boxFont);
        box->setTextMargins(0, 0, 0, 0);
        box->setGeometry(tw::twips(100 + 500 * i), 0, tw::twips(480), boxHeight);
        box->installEventFilter(this);
        m_octets << box;
    }
    for (int i = 0; i < 3; ++i) {
        auto *dot = new QLineEdit(QStringLiteral("."), octetArea);
        dot->setObjectName(QStringLiteral("Text2_%1").arg(i));
        dot->setReadOnly(true);
        dot->setFrame(false);
        dot->setFocusPolicy(Qt::NoFocus);
        dot->setAlignment(Qt::AlignCenter);
        dot->setFont(boxFont);
        dot->setStyleSheet(QStringLiteral("background: transparent"));
        const int width = 6;
        dot->setGeometry(tw::twips(100 + 500 * i + 490) - width / 2, 0, width, boxHeight);
        dot->raise();
    }
    auto *netLayout = new QHBoxLayout(netFrame);
    netLayout->addWidget(octetArea);
    netLayout->addStretch();

    auto *subnetFrame = new QGroupBox(QStringLiteral("Subnet Mask"));
    subnetFrame->setObjectName(QStringLiteral("SubnetFrame"));
    m_slider->setObjectName(QStringLiteral("Slider1"));
    m_slider->setRange(0, 32);
    m_slider->setTickPosition(QSlider::TicksBelow);
    m_slider->setTickInterval(8);
    m_mask->setObjectName(QStringLiteral("Label1"));
    QFont courier(QStringLiteral("Courier"));
    courier.setStyleHint(QFont::TypeWriter);
    m_mask->setFont(courier);
    auto *subnetLayout = new QVBoxLayout(subnetFrame);
    subnetLayout->addWidget(m_slider);
    subnetLayout->addWidget(m_mask);

    m_read->setObjectName(QStringLiteral("Check1"));
    m_write->setObjectName(QStringLiteral("Check2"));
    m_folder->setObjectName(QStringLiteral("Combo1"));
    m_folder->setEditable(true);
    m_folder->setInsertPolicy(QComboBox::NoInsert);
    m_folder->setEditText(QStringLiteral("Choose Folder"));
    m_folder->setMinimumContentsLength(30);

    auto *add = new QPushButton(QStringLiteral("Add Network"));
    add->setObjectName(QStringLiteral("Command1"));
    auto *close = new QPushButton(QStringLiteral("Close"));
    close->setObjectName(QStringLiteral("Command2"));
    // Enter in an octet box adds nothing: neither button is the default.
    for (QPushButton *button : { add, close }) {
        button->setAutoDefault(false);
        button->setDefault(false);
    }
    connect(add, &QPushButton::clicked, this, &NetworkAddDialog::addNetwork);
    connect(close, &QPushButton::clicked, this, &QDialog::accept);

    auto *buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(add);
    buttons->addWidget(close);
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(netFrame);
    layout->addWidget(subnetFrame);
    layout->addWidget(m_read);
    layout->addWidget(m_write);
    layout->addWidget(m_folder);
    layout->addLayout(buttons);

    // The browser's folders, then one empty entry (the copy has always run
    // one past the end), with the browser's current folder preselected.
    m_folder->addItems(folders);
    m_folder->addItem(QString());
    m_folder->setEditText(currentFolder);

    connect(m_slider, &QSlider::valueChanged, this, &NetworkAddDialog::updateMask);
    m_slider->setValue(24);
    m_octets.first()->setFocus();
}

void NetworkAddDialog::updateMask(int prefix)
{
    m_mask->setText(maskDisplayForm(prefix));
}

void NetworkAddDialog::addNetwork()
{
    AccessEntry entry;
    QStringList octets;
    for (const QLineEdit *box : std::as_const(m_octets))
        octets << box->text();
    entry.network = octets.join(QLatin1Char('.'));
    entry.mask = m_mask->text();
    entry.read = m_read->isChecked() ? QStringLiteral("yes") : QStringLiteral("no");
    entry.write = m_write->isChecked() ? QStringLiteral("yes") : QStringLiteral("no");
    entry.folder = m_folder->currentText();
    entry.prefix = m_slider->value();
    m_list->appendEntry(entry);
}

void NetworkAddDialog::focusOctet(int i)
{
    // Past the first or the last box there is nowhere to go.
    if (i < 0 || i >= m_octets.size())
        return;
    m_octets[i]->setFocus(Qt::OtherFocusReason);
    m_octets[i]->selectAll();
}

bool NetworkAddDialog::eventFilter(QObject *watched, QEvent *event)
{
    const int i = int(m_octets.indexOf(static_cast<QLineEdit *>(watched)));
    if (i < 0)
        return QDialog::eventFilter(watched, event);
    switch (event->type()) {
    case QEvent::FocusIn:
        m_octets[i]->selectAll();
        break;
    case QEvent::KeyPress:
        return octetKeyPress(i, static_cast<QKeyEvent *>(event));
    case QEvent::KeyRelease:
        octetKeyRelease(i, static_cast<QKeyEvent *>(event));
        break;
    default:
        break;
    }
    return QDialog::eventFilter(watched, event);
}

bool NetworkAddDialog::octetKeyPress(int i, QKeyEvent *event)
{
    QLineEdit *box = m_octets[i];
    const int key = event->key();
    // Keys that type nothing (arrows, Home, Tab, modifiers) keep their usual
    // meaning; every typed character is judged here.
    if (key == Qt::Key_Tab || key == Qt::Key_Backtab)
        return false;
    if (event->text().isEmpty() && key != Qt::Key_Backspace && key != Qt::Key_Delete)
        return false;

    if (event->text() == QLatin1String(".")) {
        if (box->text().size() >= 2 && box->text().startsWith(QLatin1Char('0')))
            box->setText(box->text().mid(1));
        focusOctet(i + 1);
        return true;
    }
    if (key == Qt::Key_Backspace) {
        if (!box->text().isEmpty())
            return false;
        box->setText(QStringLiteral("0"));
        focusOctet(i - 1);
        return true;
    }
    const bool isDelete = key == Qt::Key_Delete || event->text() == QStringLiteral("\x7f");
    const bool isDigit = event->text().size() == 1 && event->text().at(0).isDigit();
    if (!isDigit && !isDelete)
        return true;
    // A full box takes no more, even over a selection: clear it first.
    return box->text().size() >= 3;
}

void NetworkAddDialog::octetKeyRelease(int i, QKeyEvent *event)
{
    if (event->key() == Qt::Key_Backspace || event->key() == Qt::Key_Tab || event->key() == Qt::Key_Backtab)
        return;
    QLineEdit *box = m_octets[i];
    QString text = box->text();
    if (leadingValue(text) > 255)
        text = QStringLiteral("255");
    if (text.size() >= 2 && text.startsWith(QLatin1Char('0')))
        text.remove(0, 1);
    if (text != box->text()) {
        box->setText(text);
        box->selectAll();
    }
    if (text.size() >= 3)
        focusOctet(i + 1);
}
