// A journal that somebody else wrote, with the right checksum, in a tree with files, directories
// and links: whatever it says, nothing outside of the tree is made, changed or removed, and what
// was finished leaves nothing to finish.

#include "fuzzinput.h"

#include "tests/support/temporarytree.h"
#include "trees/journal.h"
#include "trees/uniquefd.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>

#include <fcntl.h>

namespace {

using tulo::JournalResult;

void write(const QString& fileName, const QByteArray& content)
{
    QFile file(fileName);
    TULO_ASSERT(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
}

class Place
{
public:
    Place()
    {
        QDir(m_tree.path()).mkpath(QStringLiteral("outside"));
        write(outside() + QStringLiteral("/file"), "outside");
    }

    void prepare(unsigned flags)
    {
        const QString tree = m_tree.writePath();
        TULO_ASSERT(QDir(tree).removeRecursively() && QDir().mkpath(tree + QStringLiteral("/a")));
        write(tree + QStringLiteral("/a/b"), "old");
        if (flags & 1)
            QFile::link(outside(), tree + QStringLiteral("/link"));
        if (flags & 2)
            QFile::link(outside() + QStringLiteral("/file"), tree + QStringLiteral("/a/.b"));
        if (flags & 4)
            QFile::link(outside() + QStringLiteral("/file"), tree + QStringLiteral("/c"));
    }

    JournalResult redo(const QByteArray& body) const
    {
        write(m_tree.writePath() + QStringLiteral("/.tulo-cm.journal"),
              "tulo-journal 1 " + QCryptographicHash::hash(body, QCryptographicHash::Sha256).toHex()
                  + '\n' + body);
        return redo();
    }

    JournalResult redo() const
    {
        const tulo::UniqueFd directory(
            ::open(QFile::encodeName(m_tree.writePath()).constData(), O_RDONLY | O_DIRECTORY));
        return tulo::redoJournal(directory.get());
    }

    bool isIntact() const
    {
        const QDir::Filters all =
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;
        QFile file(outside() + QStringLiteral("/file"));
        return file.open(QIODevice::ReadOnly) && file.readAll() == "outside"
            && QDir(outside()).entryList(all).size() == 1
            && QDir(m_tree.path()).entryList(all).size() == 3;
    }

private:
    QString outside() const { return m_tree.path() + QStringLiteral("/outside"); }

    const TemporaryTree m_tree;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Place place;
    FuzzInput input(data, size);
    place.prepare(input.byte());

    const JournalResult result = place.redo(input.chunk());

    TULO_ASSERT(place.isIntact());
    TULO_ASSERT(result.status == JournalResult::Status::Done || !result.message.isEmpty());
    // Nothing is done twice.
    if (result.status == JournalResult::Status::Done)
        TULO_ASSERT(place.redo().message.isEmpty());
    return 0;
}
