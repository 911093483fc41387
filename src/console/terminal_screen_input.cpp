#include "terminal_screen.h"

#include <vterm.h>

namespace {
VTermModifier modifierOf(Qt::KeyboardModifiers modifiers)
{
    int mod = VTERM_MOD_NONE;
    if (modifiers & Qt::ShiftModifier)
        mod |= VTERM_MOD_SHIFT;
    if (modifiers & Qt::AltModifier)
        mod |= VTERM_MOD_ALT;
    if (modifiers & Qt::ControlModifier)
        mod |= VTERM_MOD_CTRL;
    return VTermModifier(mod);
}
} // namespace

bool TerminalScreen::key(int qtKey, Qt::KeyboardModifiers modifiers, const QString &text)
{
    const VTermModifier modifier = modifierOf(modifiers);

    VTermKey special = VTERM_KEY_NONE;
    switch (qtKey) {
    case Qt::Key_Return:
        special = VTERM_KEY_ENTER;
        break;
    case Qt::Key_Enter:
        special = VTERM_KEY_KP_ENTER;
        break;
    case Qt::Key_Tab:
        special = VTERM_KEY_TAB;
        break;
    case Qt::Key_Backtab:
        special = VTERM_KEY_TAB;
        break;
    case Qt::Key_Backspace:
        special = VTERM_KEY_BACKSPACE;
        break;
    case Qt::Key_Escape:
        special = VTERM_KEY_ESCAPE;
        break;
    case Qt::Key_Up:
        special = VTERM_KEY_UP;
        break;
    case Qt::Key_Down:
        special = VTERM_KEY_DOWN;
        break;
    case Qt::Key_Left:
        special = VTERM_KEY_LEFT;
        break;
    case Qt::Key_Right:
        special = VTERM_KEY_RIGHT;
        break;
    case Qt::Key_Insert:
        special = VTERM_KEY_INS;
        break;
    case Qt::Key_Delete:
        special = VTERM_KEY_DEL;
        break;
    case Qt::Key_Home:
        special = VTERM_KEY_HOME;
        break;
    case Qt::Key_End:
        special = VTERM_KEY_END;
        break;
    case Qt::Key_PageUp:
        special = VTERM_KEY_PAGEUP;
        break;
    case Qt::Key_PageDown:
        special = VTERM_KEY_PAGEDOWN;
        break;
    default:
        if (qtKey >= Qt::Key_F1 && qtKey <= Qt::Key_F12)
            special = VTermKey(VTERM_KEY_FUNCTION(qtKey - Qt::Key_F1 + 1));
        break;
    }
    if (special == VTERM_KEY_KP_ENTER)
        special = VTERM_KEY_ENTER;
    if (special != VTERM_KEY_NONE) {
        vterm_keyboard_key(m_vt, special, modifier);
        return true;
    }

    // Ctrl with a letter is its control character, whatever text the
    // platform attaches; Alt puts ESC in front, as xterm's metaSendsEscape.
    QByteArray bytes;
    if ((modifiers & Qt::ControlModifier) && qtKey >= Qt::Key_A && qtKey <= Qt::Key_Z) {
        bytes = QByteArray(1, char(qtKey - Qt::Key_A + 1));
    } else if ((modifiers & Qt::ControlModifier) && qtKey >= Qt::Key_BracketLeft
        && qtKey <= Qt::Key_Underscore) {
        bytes = QByteArray(1, char(qtKey - Qt::Key_A + 1)); // Ctrl+[ \ ] ^ _
    } else if ((modifiers & Qt::ControlModifier) && (qtKey == Qt::Key_Space || qtKey == Qt::Key_At)) {
        bytes = QByteArray(1, '\0');
    } else if (!text.isEmpty()) {
        bytes = text.toUtf8();
    } else if ((modifiers & Qt::AltModifier) && qtKey >= Qt::Key_Space && qtKey <= Qt::Key_AsciiTilde) {
        const char base = char(qtKey);
        bytes = QByteArray(
            1, (modifiers & Qt::ShiftModifier) ? base : QChar::fromLatin1(base).toLower().toLatin1());
    }
    if (bytes.isEmpty())
        return false;
    if (modifiers & Qt::AltModifier)
        bytes.prepend('\x1b');
    m_output += bytes;
    return true;
}

void TerminalScreen::paste(const QString &text)
{
    QString normalised = text;
    normalised.replace(QLatin1String("\r\n"), QLatin1String("\r"));
    normalised.replace(QLatin1Char('\n'), QLatin1Char('\r'));
    vterm_keyboard_start_paste(m_vt);
    m_output += normalised.toUtf8();
    vterm_keyboard_end_paste(m_vt);
}

void TerminalScreen::mouseButton(
    int row, int column, int button, bool pressed, Qt::KeyboardModifiers modifiers)
{
    // libvterm sends nothing unless the device turned reporting on, and
    // encodes the report the way the device asked (SGR for mode 1006).
    vterm_mouse_move(
        m_vt, qBound(0, row, m_rows - 1), qBound(0, column, m_columns - 1), modifierOf(modifiers));
    vterm_mouse_button(m_vt, button, pressed, modifierOf(modifiers));
}

void TerminalScreen::mouseMove(int row, int column, Qt::KeyboardModifiers modifiers)
{
    vterm_mouse_move(
        m_vt, qBound(0, row, m_rows - 1), qBound(0, column, m_columns - 1), modifierOf(modifiers));
}
