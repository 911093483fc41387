// The program's command line: the input cut into arguments at NUL bytes, each
// decoded as the system hands arguments to the program, after the program's
// own name.
#include "app/command_line.h"

#include <QFile>

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    QStringList arguments { QStringLiteral("tarnwick") };
    const char *text = reinterpret_cast<const char *>(data);
    size_t start = 0;
    for (size_t i = 0; i <= size && arguments.size() < 64; ++i) {
        if (i == size || data[i] == 0) {
            arguments << QFile::decodeName(QByteArray(text + start, qsizetype(i - start)));
            start = i + 1;
        }
    }
    CommandLineOptions options;
    const CommandLineResult result = parseCommandLine(arguments, options);
    // Help and version have their text, and an error always says what is wrong.
    if (result.action != CommandLineResult::Run && result.output.isEmpty())
        std::abort();
    return 0;
}
