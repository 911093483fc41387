// Device output reaching a console, one received block per part of the input,
// through the received-text processor (printable text, backspace, carriage
// return, "*" log lines and prompt detection for the caption). A part that
// starts with "%clear" or "%note " stands for "Clear Console" or a status
// message written into the terminal between blocks.
#include "fuzz_input.h"

#include "console/terminal_processor.h"

#include <cstdlib>

namespace {
// Only printable ASCII and line ends ever reach the terminal and the log page.
bool showable(const QString &text)
{
    for (QChar c : text) {
        if ((c.unicode() < 32 || c.unicode() > 126) && c != u'\r' && c != u'\n')
            return false;
    }
    return true;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    TerminalProcessor processor;
    for (const QByteArray &block : splitInput(data, size)) {
        if (block.startsWith("%clear")) {
            processor.noteCleared();
            continue;
        }
        if (block.startsWith("%note ")) {
            processor.noteAppended(QString::fromLatin1(block.mid(6)));
            continue;
        }
        for (const TerminalOp &op : processor.feed(block)) {
            // The caption is read from the raw block, so only shown text is checked.
            if ((op.kind == TerminalOp::Append || op.kind == TerminalOp::LogLine) && !showable(op.text))
                std::abort();
        }
    }
    return 0;
}
