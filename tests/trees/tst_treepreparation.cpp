#include "trees/treepreparation.h"

#include "tests/support/temporarytree.h"
#include "trees/uniquefd.h"

#include <QCryptographicHash>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTest>

#include <fcntl.h>

using namespace tulo;

using Outcome = MigrationResult::Status;

namespace {

const QString request = QStringLiteral("/.tulo-cm.factory-reset");
const QString mode = QStringLiteral("/driving/mode");
const QByteArray eco(R"({"id":"VEH","timestamp":5,"value":{"string":"eco"}})");

/// A default tree that has renamed a setting.
class RenamedTree : public TemporaryTree
{
public:
    RenamedTree()
    {
        writeDefault(
            mode, R"({"id":"VEH","value":{"string":"normal"},"edit":{"values":["eco","normal"]}})");
    }

    /// Leaves what a process leaves that was killed before it wrote the setting's file.
    void interruptChange() const
    {
        const QJsonObject change { { QStringLiteral("path"),
                                     QStringLiteral("/vehicle/drive-mode") },
                                   { QStringLiteral("content"), QString::fromUtf8(eco) } };
        const QByteArray body = QJsonDocument(change).toJson(QJsonDocument::Compact) + '\n';
        const QByteArray digest =
            QCryptographicHash::hash(body, QCryptographicHash::Sha256).toHex();
        writeWritten(QStringLiteral("/.tulo-cm.journal"), "tulo-journal 1 " + digest + '\n' + body);
    }

    /// Those of settings, without our own files.
    QStringList written() const
    {
        return writtenEntries().filter(QRegularExpression(QStringLiteral("^/[^.].*[^/]$")));
    }

    TreePreparation prepare() const { return prepareWith(defaultPath()); }
    TreePreparation prepareWith(const QString& otherDefaultPath) const
    {
        const UniqueFd directory(
            ::open(QFile::encodeName(writePath()).constData(), O_RDONLY | O_DIRECTORY));
        return prepareTree(directory.get(), { otherDefaultPath, writePath(), QString(), QString() },
                           MigrationRun::Migrate);
    }
};

} // namespace

/// What comes before a tree is read, in its order.
class tst_TreePreparation : public QObject
{
    Q_OBJECT

private slots:
    void treeThatIsReadyStaysAsItIs();
    void factoryResetDiscardsWhatTheOthersWouldDo();
    void interruptedChangeIsMigrated();
    void nothingIsDoneWhileAFactoryResetWaits();
    void nothingIsMigratedWhileAChangeIsNotFinished();
};

void tst_TreePreparation::treeThatIsReadyStaysAsItIs()
{
    const RenamedTree tree;
    tree.writeWritten(mode, eco);

    const TreePreparation done = tree.prepare();

    QCOMPARE(done.messages, QStringList());
    QCOMPARE(done.obstacle, QString());
    QCOMPARE(done.migration.status, Outcome::Done);
    QCOMPARE(done.migration.values.size(), 0);
    QCOMPARE(tree.written(), QStringList(mode));
    QCOMPARE(tree.readWritten(mode), eco);
}

void tst_TreePreparation::factoryResetDiscardsWhatTheOthersWouldDo()
{
    const RenamedTree tree;
    tree.interruptChange();
    tree.writeWritten(mode, eco);
    tree.writeWritten(request, "");

    const TreePreparation done = tree.prepare();

    QCOMPARE(
        done.messages,
        QStringList(QStringLiteral("factory reset: 1 settings were taken back to their defaults")));
    QCOMPARE(done.obstacle, QString());
    QCOMPARE(done.migration.status, Outcome::Done);
    QCOMPARE(done.migration.values.size(), 0);
    QCOMPARE(tree.written(), QStringList());
}

void tst_TreePreparation::interruptedChangeIsMigrated()
{
    const RenamedTree tree;
    tree.interruptChange();

    const TreePreparation done = tree.prepare();

    QCOMPARE(done.messages,
             QStringList(QStringLiteral("finished a change of 1 files that was interrupted")));
    QCOMPARE(done.obstacle, QString());
    QCOMPARE(done.migration.values.size(), 1);
    QCOMPARE(tree.written(), QStringList(mode));
    QCOMPARE(tree.readWritten(mode), eco);
}

void tst_TreePreparation::nothingIsDoneWhileAFactoryResetWaits()
{
    const RenamedTree tree;
    const TemporaryTree notMounted;
    tree.interruptChange();
    tree.writeWritten(request, "");
    const QStringList before = tree.writtenEntries();

    const TreePreparation done = tree.prepareWith(notMounted.defaultPath());

    QCOMPARE(done.obstacle,
             QStringLiteral("a factory reset is asked for and is done when the tree is opened for "
                            "changes the next time: the default tree '%1' is empty")
                 .arg(notMounted.defaultPath()));
    QCOMPARE(done.messages, QStringList(done.obstacle));
    QCOMPARE(tree.writtenEntries(), before);
}

void tst_TreePreparation::nothingIsMigratedWhileAChangeIsNotFinished()
{
    const RenamedTree tree;
    tree.interruptChange();
    // In the way of the temporary file.
    tree.makeWriteDirectory(QStringLiteral("/vehicle/.drive-mode"));
    const QString other = QStringLiteral("/other/drive-mode");
    tree.writeWritten(other, eco);

    const TreePreparation done = tree.prepare();

    QVERIFY2(done.obstacle.startsWith(QLatin1String("a change of several files has begun")),
             qPrintable(done.obstacle));
    QCOMPARE(done.messages, QStringList(done.obstacle));
    QCOMPARE(done.migration.values.size(), 0);
    QCOMPARE(tree.written(), QStringList(other));
}

QTEST_GUILESS_MAIN(tst_TreePreparation)
#include "tst_treepreparation.moc"
