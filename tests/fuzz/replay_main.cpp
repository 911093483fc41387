// Runs a fuzz target over files instead of generated inputs: each argument is
// a file or a folder of files (a seed corpus), each file one input. This is
// how CTest replays the seed corpora and reproducers under the normal build,
// without libFuzzer.
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {
bool runFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "cannot read %s\n", qPrintable(path));
        return false;
    }
    const QByteArray bytes = file.readAll();
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.constData()), size_t(bytes.size()));
    return true;
}
} // namespace

int main(int argc, char **argv)
{
    int inputs = 0;
    for (int i = 1; i < argc; ++i) {
        const QString path = QFile::decodeName(argv[i]);
        QStringList files;
        if (QFileInfo(path).isDir()) {
            const QDir dir(path);
            for (const QString &name : dir.entryList(QDir::Files, QDir::Name))
                files << dir.filePath(name);
        } else {
            files << path;
        }
        for (const QString &file : std::as_const(files)) {
            if (!runFile(file))
                return 1;
            ++inputs;
        }
    }
    if (inputs == 0) {
        std::fprintf(stderr, "no inputs given (a corpus folder or files)\n");
        return 1;
    }
    std::printf("%d inputs replayed\n", inputs);
    return 0;
}
