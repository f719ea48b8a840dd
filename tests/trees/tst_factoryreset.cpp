#include "trees/factoryreset.h"
#include "trees/uniquefd.h"

#include "tests/support/readonlyplace.h"
#include "tests/support/smalldisk.h"
#include "tests/support/temporarytree.h"

#include <QFile>
#include <QTest>

#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace tulo;

using Status = JournalResult::Status;

namespace {

const QString request = QStringLiteral("/.tulo-cm.factory-reset");
const QByteArray written(R"({"timestamp":1,"value":{"int":7}})");
constexpr uid_t another = 65534;

QByteArray encoded(const TemporaryTree& tree, const QString& name)
{
    return QFile::encodeName(tree.writePath() + name);
}

UniqueFd opened(const TemporaryTree& tree)
{
    return UniqueFd(::open(encoded(tree, QString()).constData(), O_RDONLY | O_DIRECTORY));
}

JournalResult finishReset(const TemporaryTree& tree)
{
    return finishFactoryReset(opened(tree).get(), tree.defaultPath(), tree.writePath(), QString());
}

/// A device on which something was changed, and a reset was asked for.
class ChangedTree : public TemporaryTree
{
public:
    ChangedTree()
    {
        writeDefault(QStringLiteral("/audio/volume"), R"({"value":{"int":5}})");
        writeDefault(QStringLiteral("/presets/.meta"), "{}");
        writeWritten(QStringLiteral("/audio/volume"), written);
        writeWritten(QStringLiteral("/presets/mine"), written);
        writeWritten(QStringLiteral("/older/image/setting"), written);
        writeWritten(QStringLiteral("/.tulo-cm.migrations"), "{}");
        writeWritten(QStringLiteral("/.tulo-cm.lock"), "");
        writeWritten(request, "");
    }
};

const QStringList untouched { QStringLiteral("/.tulo-cm.lock"), QStringLiteral("/audio/"),
                              QStringLiteral("/presets/") };

} // namespace

/// A reset of everything that a file asks for.
class tst_FactoryReset : public QObject
{
    Q_OBJECT

private slots:
    void whatSettingsHaveIsRemovedOnce();
    void otherFilesStay();
    void withoutARequestNothingIsRemoved();
    void requestOfAnotherKindOrUserIsRefused();
    void requestOfTheTreesOwnerCounts();
    void emptyDefaultTreeIsWaitedFor();
    void interruptedChangeIsDiscarded();
    void damagedFilesOfSettingsGo();
    void fullDiskIsNoObstacle();
    void whatCannotBeRemovedKeepsTheRequest();
    void requestThatIsThereIsEnough();
    void requestThatCannotBeMadeIsRefused();
};

void tst_FactoryReset::whatSettingsHaveIsRemovedOnce()
{
    const ChangedTree tree;

    const JournalResult result = finishReset(tree);

    QCOMPARE(result.message,
             QStringLiteral("factory reset: 3 settings were taken back to their defaults"));
    QCOMPARE(result.status, Status::Done);
    QCOMPARE(tree.writtenEntries(), untouched);
    tree.writeWritten(QStringLiteral("/audio/volume"), written);
    QCOMPARE(finishReset(tree).message, QString());
    QCOMPARE(tree.readWritten(QStringLiteral("/audio/volume")), written);
}

void tst_FactoryReset::otherFilesStay()
{
    const ChangedTree tree;
    const QByteArray outside = QFile::encodeName(tree.path()) + "/outside";
    QVERIFY(QFile(QFile::decodeName(outside)).open(QIODevice::WriteOnly));
    QCOMPARE(::symlink(outside.constData(), encoded(tree, QStringLiteral("/link")).constData()), 0);
    tree.writeWritten(QStringLiteral("/notes/text"), "not a setting");
    tree.writeWritten(QStringLiteral("/audio/.hidden"), written);
    tree.writeWritten(QStringLiteral("/.tulo-cm.journal"), "not a journal");

    QCOMPARE(finishReset(tree).status, Status::Done);

    QStringList expected = untouched
        + QStringList { QStringLiteral("/.tulo-cm.journal"), QStringLiteral("/audio/.hidden"),
                        QStringLiteral("/link"), QStringLiteral("/notes/"),
                        QStringLiteral("/notes/text") };
    expected.sort();
    QCOMPARE(tree.writtenEntries(), expected);
    QVERIFY(QFile::exists(QFile::decodeName(outside)));
}

void tst_FactoryReset::withoutARequestNothingIsRemoved()
{
    const ChangedTree tree;
    QVERIFY(QFile::remove(tree.writePath() + request));
    const QStringList before = tree.writtenEntries();

    const JournalResult result = finishReset(tree);

    QCOMPARE(result.status, Status::Done);
    QCOMPARE(result.message, QString());
    QCOMPARE(tree.writtenEntries(), before);
}

void tst_FactoryReset::requestOfAnotherKindOrUserIsRefused()
{
    const ChangedTree tree;
    const QByteArray name = encoded(tree, request);
    const QString prefix =
        QStringLiteral("the file '.tulo-cm.factory-reset' in the writable tree %1; nothing was "
                       "reset");
    const auto verifyRefused = [&tree, &prefix](const char* reason) {
        const JournalResult result = finishReset(tree);
        QCOMPARE(result.message, prefix.arg(QLatin1String(reason)));
        QCOMPARE(result.status, Status::Refused);
        QCOMPARE(tree.readWritten(QStringLiteral("/audio/volume")), written);
    };

    QCOMPARE(::unlink(name.constData()), 0);
    QCOMPARE(::mkdir(name.constData(), 0700), 0);
    verifyRefused("is not a regular file");
    QCOMPARE(::rmdir(name.constData()), 0);
    QCOMPARE(::symlink("audio/volume", name.constData()), 0);
    verifyRefused("is not a regular file");
    if (::geteuid() == 0) {
        QCOMPARE(::unlink(name.constData()), 0);
        tree.writeWritten(request, "");
        QCOMPARE(::chown(name.constData(), another, another), 0);
        verifyRefused("belongs to another user");
    }
}

// Also when root does what it asks for.
void tst_FactoryReset::requestOfTheTreesOwnerCounts()
{
    if (::geteuid() != 0)
        QSKIP("needs root, to give files away");
    const ChangedTree tree;
    for (const QString& name : { QString(), request })
        QCOMPARE(::chown(encoded(tree, name).constData(), another, another), 0);

    const JournalResult result = finishReset(tree);

    QVERIFY2(result.status == Status::Done, qPrintable(result.message));
    QCOMPARE(tree.writtenEntries(), untouched);
}

// Its partition is not mounted, for example: then nobody knows what belongs to a setting.
void tst_FactoryReset::emptyDefaultTreeIsWaitedFor()
{
    const ChangedTree tree;
    const TemporaryTree empty;
    const QStringList before = tree.writtenEntries();

    const JournalResult result =
        finishFactoryReset(opened(tree).get(), empty.defaultPath(), tree.writePath(), QString());

    QCOMPARE(result.status, Status::Unfinished);
    QCOMPARE(result.message,
             QStringLiteral("a factory reset is asked for and is done when the tree is opened for "
                            "changes the next time: the default tree '%1' is empty")
                 .arg(empty.defaultPath()));
    QCOMPARE(tree.writtenEntries(), before);
}

void tst_FactoryReset::interruptedChangeIsDiscarded()
{
    const ChangedTree tree;
    QVERIFY(QFile::remove(tree.writePath() + request));
    // Decided, and interrupted: the second file cannot be written.
    tree.makeWriteDirectory(QStringLiteral("/presets/.other"));
    const FileChange first { QStringLiteral("/audio/volume"), QByteArray("{}") };
    const FileChange second { QStringLiteral("/presets/other"), QByteArray("{}") };
    QVERIFY(commitChanges(opened(tree).get(), { first, second }).status != Status::Done);
    tree.writeWritten(QStringLiteral("/.tulo-cm.journal"), "tulo-journal 1 of a power cut");
    tree.writeWritten(QStringLiteral("/.tulo-cm.journal.new"), "tulo-journal 1");
    tree.writeWritten(request, "");

    QCOMPARE(finishReset(tree).status, Status::Done);

    QVERIFY(!hasJournal(tree.writePath()));
    QVERIFY(!tree.writtenEntries().contains(QStringLiteral("/.tulo-cm.journal.new")));
    QCOMPARE(redoJournal(opened(tree).get()).message, QString());
    QVERIFY(tree.readWritten(QStringLiteral("/audio/volume")).isNull());
}

void tst_FactoryReset::damagedFilesOfSettingsGo()
{
    const ChangedTree tree;
    tree.writeWritten(QStringLiteral("/audio/volume"), "{\"val");
    tree.writeWritten(QStringLiteral("/.tulo-cm.migrations"), "damaged");

    QCOMPARE(finishReset(tree).status, Status::Done);

    QCOMPARE(tree.writtenEntries(), untouched);
}

void tst_FactoryReset::fullDiskIsNoObstacle()
{
    const ChangedTree tree;
    const SmallDisk disk(tree.writePath());
    if (!disk.isMounted())
        QSKIP("needs root to mount a file system");
    tree.writeWritten(QStringLiteral("/audio/volume"), written);
    tree.writeWritten(QStringLiteral("/older/image/setting"), written);
    QVERIFY(disk.fill());

    QCOMPARE(requestFactoryReset(opened(tree).get()).message, QString());
    const JournalResult result = finishReset(tree);

    QCOMPARE(result.status, Status::Done);
    QCOMPARE(tree.writtenEntries(),
             QStringList({ QStringLiteral("/audio/"), QStringLiteral("/filler") }));
}

void tst_FactoryReset::whatCannotBeRemovedKeepsTheRequest()
{
    const ChangedTree tree;
    auto place = std::make_unique<ReadOnlyPlace>(tree.writePath() + QLatin1String("/presets"));
    if (!place->isReadOnly())
        QSKIP("needs root to mount a file system");

    const JournalResult result = finishReset(tree);

    place.reset();
    QCOMPARE(result.status, Status::Unfinished);
    QCOMPARE(result.message,
             QStringLiteral("a factory reset is asked for and is done when the tree is opened for "
                            "changes the next time: cannot remove 'presets/mine' in the writable "
                            "tree: Read-only file system"));
    QVERIFY(tree.writtenEntries().contains(request));
    QCOMPARE(finishReset(tree).status, Status::Done);
    QCOMPARE(tree.writtenEntries(), untouched);
}

void tst_FactoryReset::requestThatIsThereIsEnough()
{
    const ChangedTree tree;

    QCOMPARE(requestFactoryReset(opened(tree).get()).message, QString());

    QVERIFY(tree.writtenEntries().contains(request));
}

void tst_FactoryReset::requestThatCannotBeMadeIsRefused()
{
    const ChangedTree tree;
    QVERIFY(QFile::remove(tree.writePath() + request));
    tree.makeWriteDirectory(request);

    const JournalResult result = requestFactoryReset(opened(tree).get());

    QCOMPARE(result.status, Status::Refused);
    QCOMPARE(result.message,
             QStringLiteral("cannot write '.tulo-cm.factory-reset' in the writable tree: File "
                            "exists"));
}

QTEST_GUILESS_MAIN(tst_FactoryReset)
#include "tst_factoryreset.moc"
