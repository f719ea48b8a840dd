// Runs a fuzz target once on each file of the folders and files named; fails when there is none.

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

bool run(const QString& name)
{
    QFile file(name);
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "cannot read %s\n", qPrintable(name));
        return false;
    }
    const QByteArray input = file.readAll();
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.constData()),
                           std::size_t(input.size()));
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    int count = 0;
    for (int i = 1; i < argc; ++i) {
        const QString name = QFile::decodeName(argv[i]);
        QStringList files { name };
        if (QFileInfo(name).isDir()) {
            files.clear();
            const QFileInfoList entries = QDir(name).entryInfoList(QDir::Files, QDir::Name);
            for (const QFileInfo& entry : entries)
                files.append(entry.filePath());
        }
        for (const QString& file : qAsConst(files)) {
            if (!run(file))
                return 1;
            ++count;
        }
    }
    std::printf("%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
