// Device output reaching a console in terminal mode, one received block per
// part of the input, through the screen (libvterm and our cells, scrollback
// and "*" lines) and the decoded-text reader. A part "%size R C" resizes the screen in between, as a
// window does; "%key" and "%paste" exercise what goes back to the device.
// The corpus holds the libvterm 0.1.4 faults this target found (REP with
// nothing printed, a cursor left above a shrunken screen, DECRC to a saved
// position outside it, a wide character on a one-column screen, a string's
// ESC \ with controls between, read past the end of the input, REP of a
// glyph of no width or after a reset split between blocks).
#include "fuzz_input.h"

#include "console/terminal_screen.h"
#include "console/terminal_text_reader.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    TerminalScreen screen(24, 80, 50);
    TerminalTextReader reader;
    for (const QByteArray &block : splitInput(data, size)) {
        if (block.startsWith("%size ")) {
            const QList<QByteArray> numbers = block.mid(6).split(' ');
            screen.resize(qBound(1, numbers.value(0).toInt(), 200), qBound(1, numbers.value(1).toInt(), 300));
            continue;
        }
        if (block.startsWith("%key")) {
            screen.key(Qt::Key_Up, Qt::NoModifier, QString());
            screen.key(Qt::Key_C, Qt::ControlModifier, QString());
            continue;
        }
        if (block.startsWith("%paste ")) {
            screen.paste(QString::fromUtf8(block.mid(7)));
            continue;
        }
        screen.feed(block);
        reader.decode(block);
        for (const QString &line : screen.takeStarLines()) {
            if (!line.startsWith(QLatin1Char('*')))
                std::abort();
        }
        // Every cell the view can ask for must be there, scrollback included.
        if (screen.scrollbackCount() > screen.scrollbackLimit() || screen.cursorRow() >= screen.rows()
            || screen.cursorColumn() > screen.columns())
            std::abort();
        screen.rowText(-screen.scrollbackCount());
        screen.rowText(screen.cursorRow());
        screen.rowText(screen.rows() - 1);
        screen.takeOutput();
    }
    screen.allText();
    return 0;
}
