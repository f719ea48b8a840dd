#include "trees/treecheck.h"

#include "tests/support/childprocess.h"
#include "tests/support/temporarytree.h"

#include <QFile>
#include <QRegularExpression>
#include <QTest>

#include <functional>
#include <initializer_list>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace tulo;

using Arrange = std::function<void(const TemporaryTree&)>;

Q_DECLARE_METATYPE(Arrange)

namespace {

constexpr uid_t nobody = 65534;
constexpr int maximumFileBytes = 1024 * 1024;

QByteArray nameIn(const TemporaryTree& tree, const char* name)
{
    return QFile::encodeName(tree.path()) + '/' + name;
}

void require(int result)
{
    if (result != 0)
        qFatal("cannot arrange the tree");
}

void makeLink(const TemporaryTree& tree, const char* target, const char* name)
{
    require(::symlink(target, nameIn(tree, name).constData()));
}

void makePipe(const TemporaryTree& tree, const char* name)
{
    require(::mkfifo(nameIn(tree, name).constData(), 0644));
}

void makeSocket(const TemporaryTree& tree, const char* name)
{
    // The name has to be short.
    require(::chdir(nameIn(tree, "").constData()));
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, name, sizeof address.sun_path);
    require(::bind(descriptor, reinterpret_cast<struct sockaddr*>(&address), sizeof address));
    require(::close(descriptor));
}

// A file that takes no space.
void makeLarge(const TemporaryTree& tree, const char* name, qint64 size)
{
    QFile file(QFile::decodeName(nameIn(tree, name)));
    if (!file.open(QIODevice::WriteOnly) || !file.resize(size))
        qFatal("cannot make a large file");
}

// "stops RULE PLACE: MESSAGE" or "finds ...", the place from the folder that holds both trees.
QStringList inspect(const TemporaryTree& tree)
{
    QStringList lines;
    const QVector<TreeFinding> findings = inspectTrees(tree.defaultPath(), tree.writePath());
    for (const TreeFinding& finding : findings) {
        if (!finding.file.startsWith(tree.path()))
            qFatal("a finding outside the trees");
        lines.append(QStringLiteral("%1 %2 %3: %4")
                         .arg(QLatin1String(finding.stopsStart ? "stops" : "finds"),
                              QLatin1String(ruleOf(finding.rule).name),
                              placeOf(finding).mid(tree.path().size() + 1), finding.message));
    }
    return lines;
}

// All of a tree, when root runs the test; another user owns it already.
void giveToNobody(const TemporaryTree& tree, const QStringList& entries, const char* root)
{
    if (::geteuid() != 0)
        return;
    require(::chown(nameIn(tree, root).constData(), nobody, nobody));
    for (const QString& entry : entries)
        require(
            ::chown((nameIn(tree, root) + QFile::encodeName(entry)).constData(), nobody, nobody));
}

QString levels(int count)
{
    QString path;
    for (int i = 1; i <= count; ++i)
        path += QStringLiteral("/d%1").arg(i);
    return path;
}

} // namespace

class tst_treecheck : public QObject
{
    Q_OBJECT

private slots:
    void findings_data();
    void findings();
    void soundTreesHaveNone();
    void findingsComeInListingOrder();
    void othersHiddenFilesAreLeftAlone();
    void nothingIsChanged();
    void missingTreeStopsTheStart();
    void nameOfTheTreeMayEndInASlash();

    void eachDirectoryIsVisitedOnce();
    void directoryIsVisitedWhereItLiesHighest();
    void deepTreeIsVisitedAsFarAsPathsReach();

    void whatThisUserCannotUseIsFound();
    void whatTheOwnerCannotUseIsFoundByRoot();
};

// As a service that runs as root would not be stopped by modes, those have tests of their own.
void tst_treecheck::findings_data()
{
    QTest::addColumn<Arrange>("arrange");
    QTest::addColumn<QStringList>("lines");
    const auto row = [](const char* name, const Arrange& arrange,
                        const std::initializer_list<const char*>& lines) {
        QStringList expected;
        for (const char* line : lines)
            expected.append(QString::fromUtf8(line));
        QTest::newRow(name) << arrange << expected;
    };
    const auto defaultFile = [](const char* name, const QByteArray& content) {
        return [name, content](const TemporaryTree& tree) {
            tree.writeDefault(QString::fromLatin1(name), content);
        };
    };
    const auto writtenFile = [](const char* name, const QByteArray& content) {
        return [name, content](const TemporaryTree& tree) {
            tree.writeWritten(QString::fromLatin1(name), content);
        };
    };

    // Either tree: what could block or exhaust the process.
    row("pipe", [](const TemporaryTree& tree) { makePipe(tree, "default/audio/pipe"); },
        { "stops special-file default/audio/pipe: is neither a regular file nor a directory" });
    row("pipe that no listing shows",
        [](const TemporaryTree& tree) { makePipe(tree, "default/audio/a.b"); },
        { "stops special-file default/audio/a.b: is neither a regular file nor a directory" });
    row("pipe in the place of a directory's roles",
        [](const TemporaryTree& tree) { makePipe(tree, "default/.meta"); },
        { "stops special-file default/.meta: is neither a regular file nor a directory" });
    row("socket", [](const TemporaryTree& tree) { makeSocket(tree, "write/socket"); },
        { "stops special-file write/socket: is neither a regular file nor a directory" });
    row("link to a device",
        [](const TemporaryTree& tree) { makeLink(tree, "/dev/zero", "default/zero"); },
        { "stops special-file default/zero: is neither a regular file nor a directory" });
    row("written link to a device",
        [](const TemporaryTree& tree) { makeLink(tree, "/dev/zero", "write/zero"); },
        { "stops special-file write/zero: is neither a regular file nor a directory" });
    row("pipe behind a link to a directory",
        [](const TemporaryTree& tree) {
            require(::mkdir(nameIn(tree, "real").constData(), 0755));
            makePipe(tree, "real/pipe");
            makeLink(tree, "../real", "default/linked");
        },
        { "stops special-file default/linked/pipe: is neither a regular file nor a directory" });
    row("pipe behind a written link to a directory",
        [](const TemporaryTree& tree) {
            require(::mkdir(nameIn(tree, "real").constData(), 0755));
            makePipe(tree, "real/pipe");
            makeLink(tree, "../real", "write/linked");
        },
        { "finds link write/linked: is a link; no change is written through it",
          "stops special-file write/linked/pipe: is neither a regular file nor a directory" });
    row("large file",
        [](const TemporaryTree& tree) { makeLarge(tree, "default/x", maximumFileBytes + 1); },
        { "stops too-large default/x: is larger than 1 MiB" });
    row("large written file",
        [](const TemporaryTree& tree) { makeLarge(tree, "write/x", qint64(3) << 30); },
        { "stops too-large write/x: is larger than 1 MiB" });
    row("large file behind a link",
        [](const TemporaryTree& tree) {
            makeLarge(tree, "large", maximumFileBytes + 1);
            makeLink(tree, "../large", "default/x");
        },
        { "stops too-large default/x: is larger than 1 MiB" });
    row("largest file",
        [](const TemporaryTree& tree) {
            tree.writeDefault(QStringLiteral("/x"), "{}" + QByteArray(maximumFileBytes - 2, ' '));
        },
        {});

    // The default tree.
    row("broken default file", defaultFile("/x", "{broken"),
        { "stops syntax default/x:1:2: Missing a name for object member." });
    row("default file that holds null", defaultFile("/x", "null"),
        { "stops no-object default/x:1:1: holds null instead of an object" });
    row("default file that holds a number", defaultFile("/x", "5"),
        { "finds no-object default/x:1:1: holds int instead of an object" });
    row("directory in the place of a directory's roles",
        [](const TemporaryTree& tree) { tree.makeDefaultDirectory(QStringLiteral("/a/.meta")); },
        { "stops no-object default/a/.meta: is a directory" });
    row("value of no kind", defaultFile("/x", R"({"value":5})"),
        { "finds no-kind default/x:1:2: value: 5 is not a value of a known kind, such as {\"int\":5}" });
    row("value outside its constraints",
        defaultFile("/x", R"({"value":{"int":5},"edit":{"max":4}})"),
        { "finds default-outside-constraints default/x:1:2: value: 5: it is above 'max' (4)" });
    row("constraints in a text", defaultFile("/x", R"({"value":{"int":5},"edit":"0..100"})"),
        { "finds constraint-malformed default/x:1:20: edit: \"0..100\" is not an object" });
    row("constraints in a list", defaultFile("/a/.meta", R"({"edit":[0,100]})"),
        { "finds constraint-malformed default/a/.meta:1:2: edit: [0,100] is not an object" });
    row("no constraints", defaultFile("/x", R"({"value":{"int":5},"edit":{}})"), {});
    row("name that no listing shows", defaultFile("/README.md", "# Settings"),
        { "finds not-listed default/README.md: no listing shows this name" });
    row("hidden file", defaultFile("/a/.x", "{}"),
        { "finds not-listed default/a/.x: no listing shows this name" });
    row("link that leads nowhere",
        [](const TemporaryTree& tree) { makeLink(tree, "none", "default/x"); },
        { "finds link default/x: is a link that leads nowhere" });
    row("link to itself", [](const TemporaryTree& tree) { makeLink(tree, "x", "default/x"); },
        { "finds link default/x: is a link that leads nowhere" });
    row("link to a directory that holds it",
        [](const TemporaryTree& tree) {
            tree.makeDefaultDirectory(QStringLiteral("/a/b"));
            makeLink(tree, "../..", "default/a/b/loop");
        },
        { "finds link default/a/b/loop: is a link to a directory that it lies in" });

    // The writable tree.
    row("broken written file", writtenFile("/x", "{broken"),
        { "finds written-unparsable write/x:1:2: Missing a name for object member." });
    row("empty written file", writtenFile("/x", ""),
        { "finds written-unparsable write/x:1:1: The document is empty." });
    row("written file that holds null", writtenFile("/x", "null"),
        { "finds written-unparsable write/x:1:1: holds null instead of an object" });
    row("link",
        [](const TemporaryTree& tree) {
            tree.writeDefault(QStringLiteral("/x"), "{}");
            makeLink(tree, "../default/x", "write/x");
        },
        { "finds link write/x: is a link; no change is written through it" });
    row("written link that leads nowhere",
        [](const TemporaryTree& tree) { makeLink(tree, "none", "write/x"); },
        { "finds link write/x: is a link; no change is written through it" });
    row("directory over a setting",
        [](const TemporaryTree& tree) {
            tree.writeDefault(QStringLiteral("/x"), "{}");
            tree.writeWritten(QStringLiteral("/x/y"), "broken");
        },
        { "finds file-directory-clash write/x: is a directory, but a setting in the default tree" });
    row("file over a directory",
        [](const TemporaryTree& tree) {
            tree.makeDefaultDirectory(QStringLiteral("/x"));
            tree.writeWritten(QStringLiteral("/x"), "{}");
        },
        { "finds file-directory-clash write/x: is a file, but a directory in the default tree" });

    // Beside a setting of the default tree, of the writable tree, and where one can be made.
    const auto temporary = [](const Arrange& arrange) {
        return [arrange](const TemporaryTree& tree) {
            tree.writeDefault(QStringLiteral("/audio/volume"), "{}");
            tree.makeWriteDirectory(QStringLiteral("/audio"));
            arrange(tree);
        };
    };
    const char* const stale = "finds stale-temporary write/audio/.volume: may be left from an "
                              "interrupted write of 'volume', whose next write reuses it";
    row("stale temporary file", temporary(writtenFile("/audio/.volume", "{\"val")), { stale });
    row("stale temporary file of a written setting",
        [](const TemporaryTree& tree) {
            tree.writeWritten(QStringLiteral("/audio/volume"), "{}");
            tree.writeWritten(QStringLiteral("/audio/.volume"), "");
        },
        { stale });
    row("stale temporary file of a new setting",
        [](const TemporaryTree& tree) {
            tree.writeDefault(QStringLiteral("/audio/.meta"), "{}");
            tree.writeWritten(QStringLiteral("/audio/.volume"), "");
        },
        { stale });
    row("temporary file with a second name", temporary([](const TemporaryTree& tree) {
            tree.writeWritten(QStringLiteral("/audio/other"), "{}");
            require(::link(nameIn(tree, "write/audio/other").constData(),
                           nameIn(tree, "write/audio/.volume").constData()));
        }),
        { "finds hard-link write/audio/.volume: has a second name, whose content the next write of "
          "'volume' would overwrite" });
    row("link in the place of a temporary file", temporary([](const TemporaryTree& tree) {
            makeLink(tree, "other", "write/audio/.volume");
        }),
        { "finds link write/audio/.volume: is a link, so no change of 'volume' is written" });
    row("directory in the place of a temporary file", temporary([](const TemporaryTree& tree) {
            tree.makeWriteDirectory(QStringLiteral("/audio/.volume"));
        }),
        { "finds file-directory-clash write/audio/.volume: is a directory, so no change of 'volume' can be "
          "written" });
    row("pipe in the place of a temporary file",
        temporary([](const TemporaryTree& tree) { makePipe(tree, "write/audio/.volume"); }),
        { "stops special-file write/audio/.volume: is neither a regular file nor a directory" });
}

void tst_treecheck::findings()
{
    QFETCH(const Arrange, arrange);
    QFETCH(const QStringList, lines);
    const TemporaryTree tree;
    tree.makeDefaultDirectory(QStringLiteral("/audio"));
    arrange(tree);

    QCOMPARE(inspect(tree), lines);
}

void tst_treecheck::soundTreesHaveNone()
{
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/.meta"), "{}");
    tree.writeDefault(QStringLiteral("/audio/volume"),
                      R"({"value":{"int":5},"edit":{"kind":"int","max":10}})");
    tree.writeWritten(QStringLiteral("/audio/volume"), R"({"timestamp":1,"value":{"int":6}})");
    tree.writeWritten(QStringLiteral("/.tulo-cm.lock"), "1\n");
    makeLink(tree, "volume", "default/audio/loudness");

    QCOMPARE(inspect(tree), QStringList());
}

void tst_treecheck::findingsComeInListingOrder()
{
    const TemporaryTree tree;
    for (const char* name : { "/b", "/a/z", "/a/Y", "/a-b", "/a/c/d" }) {
        tree.writeDefault(QString::fromLatin1(name), "1");
        tree.writeWritten(QString::fromLatin1(name), "1");
    }

    QStringList expected;
    for (const char* root : { "default", "write" }) {
        for (const char* name : { "a/Y", "a/c/d", "a/z", "a-b", "b" }) {
            expected.append(
                QStringLiteral("finds %1 %2/%3:1:1: holds int instead of an object")
                    .arg(QLatin1String(*root == 'd' ? "no-object" : "written-unparsable"),
                         QLatin1String(root), QLatin1String(name)));
        }
    }
    QCOMPARE(inspect(tree), expected);
}

// Of a home directory that somebody took for the writable tree, for example.
void tst_treecheck::othersHiddenFilesAreLeftAlone()
{
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/.meta"), "{}");
    for (const char* name :
         { "/.profile", "/.meta", "/.cache/broken", "/sub/.gitkeep", "/lost+found/broken" })
        tree.writeWritten(QString::fromLatin1(name), "broken");
    makePipe(tree, "write/.pipe");
    makeLink(tree, "none", "write/.link");

    QCOMPARE(inspect(tree), QStringList());
}

void tst_treecheck::nothingIsChanged()
{
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/x"), "broken");
    tree.writeWritten(QStringLiteral("/.x"), "stale");
    const QStringList defaultEntries = tree.defaultEntries();
    const QStringList writtenEntries = tree.writtenEntries();

    QCOMPARE(inspect(tree).size(), 2);

    QCOMPARE(tree.defaultEntries(), defaultEntries);
    QCOMPARE(tree.writtenEntries(), writtenEntries);
    QCOMPARE(tree.readWritten(QStringLiteral("/.x")), QByteArray("stale"));
}

void tst_treecheck::missingTreeStopsTheStart()
{
    const TemporaryTree tree;
    QCOMPARE(::rmdir(nameIn(tree, "write").constData()), 0);

    QCOMPARE(inspect(tree),
             QStringList(QStringLiteral("stops unreadable write: No such file or directory")));
}

void tst_treecheck::nameOfTheTreeMayEndInASlash()
{
    const TemporaryTree tree;
    tree.writeWritten(QStringLiteral("/x"), "5");

    const QVector<TreeFinding> findings =
        inspectTrees(tree.defaultPath(), tree.writePath() + QLatin1Char('/'));

    QCOMPARE(findings.size(), 1);
    QCOMPARE(findings.first().file, tree.writePath() + QLatin1String("/x"));
}

// Each folder links to all others: 20 of them have more ways than could ever be walked.
void tst_treecheck::eachDirectoryIsVisitedOnce()
{
    constexpr int count = 20;
    const TemporaryTree tree;
    for (int i = 0; i < count; ++i) {
        tree.writeDefault(QStringLiteral("/d%1/x").arg(i), "5");
        for (int other = 0; other < count; ++other) {
            if (other != i) {
                makeLink(tree, qPrintable(QStringLiteral("../d%1").arg(other)),
                         qPrintable(QStringLiteral("default/d%1/to%2").arg(i).arg(other)));
            }
        }
    }

    QCOMPARE(inspect(tree).size(), count);
}

// Through the link, what lies in it would be too deep.
void tst_treecheck::directoryIsVisitedWhereItLiesHighest()
{
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/z/d1/d2/d3/x"), "5");
    tree.makeDefaultDirectory(levels(14));
    makeLink(tree, nameIn(tree, "default/z").constData(),
             qPrintable(QLatin1String("default") + levels(14) + QLatin1String("/link")));

    QCOMPARE(inspect(tree),
             QStringList(QStringLiteral(
                 "finds no-object default/z/d1/d2/d3/x:1:1: holds int instead of an object")));
}

void tst_treecheck::deepTreeIsVisitedAsFarAsPathsReach()
{
    const TemporaryTree tree;
    // Sixteen levels with the mount; a listing of the last still reads what is in it.
    tree.writeDefault(levels(14) + QLatin1String("/x"), "5");
    tree.writeDefault(levels(15) + QLatin1String("/x"), "5");
    tree.writeDefault(levels(16) + QLatin1String("/.meta"), "broken");
    tree.writeDefault(levels(16) + QLatin1String("/x"), "broken");
    tree.writeDefault(levels(200) + QLatin1String("/x"), "broken");

    const QString base = QLatin1String("default") + levels(14);
    const QString tooDeep = QStringLiteral("is below level 16, so no path reaches it");
    const QString noObject = QStringLiteral("holds int instead of an object");
    QCOMPARE(inspect(tree),
             QStringList({ QStringLiteral("finds path-too-deep %1/d15/d16: %2").arg(base, tooDeep),
                           QStringLiteral("stops syntax %1/d15/d16/.meta:1:1: Invalid "
                                          "value.")
                               .arg(base),
                           QStringLiteral("finds path-too-deep %1/d15/x: %2").arg(base, tooDeep),
                           QStringLiteral("finds no-object %1/d15/x:1:1: %2").arg(base, noObject),
                           QStringLiteral("finds no-object %1/x:1:1: %2").arg(base, noObject) }));
}

// ---------------------------------------------------------------------------------------------
// Owners and modes. Root may everything, so the first test gives its rights up.
// ---------------------------------------------------------------------------------------------

void tst_treecheck::whatThisUserCannotUseIsFound()
{
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/closed"), "{}");
    tree.writeDefault(QStringLiteral("/locked/x"), "{}");
    tree.writeWritten(QStringLiteral("/audio/mode"), "{}");
    tree.writeWritten(QStringLiteral("/audio/volume"), "{}");
    tree.writeWritten(QStringLiteral("/audio/.volume"), "{}");
    tree.writeWritten(QStringLiteral("/video/x"), "{}");
    giveToNobody(tree, tree.defaultEntries(), "default");
    giveToNobody(tree, tree.writtenEntries(), "write");
    for (const char* name : { "default/closed", "default/locked", "write/audio/mode" })
        require(::chmod(nameIn(tree, name).constData(), 0000));
    require(::chmod(nameIn(tree, "write/audio/.volume").constData(), 0444));
    require(::chmod(nameIn(tree, "write/video").constData(), 0555));

    const ChildResult child = ChildProcess::runInChild(
        [&tree] {
            const QStringList lines = inspect(tree);

            QCOMPARE(lines.size(), 5);
            const auto expect = [&lines](int index, const char* pattern) {
                QVERIFY2(QRegularExpression(
                             QRegularExpression::anchoredPattern(QString::fromLatin1(pattern)))
                             .match(lines.at(index))
                             .hasMatch(),
                         qPrintable(lines.at(index)));
            };
            expect(0,
                   "finds unreadable default/closed: user '.+' cannot read it; change its mode "
                   "\\(chmod u\\+r\\)");
            expect(1,
                   "finds unreadable default/locked: user '.+' cannot read it; change its mode "
                   "\\(chmod u\\+rwx\\)");
            expect(2,
                   "stops unusable write/audio/\\.volume: user '.+' cannot write it; change its "
                   "mode \\(chmod u\\+w\\)");
            expect(3,
                   "stops unusable write/audio/mode: user '.+' cannot read it; change its mode "
                   "\\(chmod u\\+r\\)");
            expect(4,
                   "stops unusable write/video: user '.+' cannot read and write it; change its "
                   "mode \\(chmod u\\+rwx\\)");
        },
        ChildProcess::User::Nobody);

    for (const char* name : { "default/locked", "write/video" })
        require(::chmod(nameIn(tree, name).constData(), 0755));
    QVERIFY2(child.exitCode == 0, child.standardOutput.constData());
}

void tst_treecheck::whatTheOwnerCannotUseIsFoundByRoot()
{
    if (::geteuid() != 0)
        QSKIP("needs root to give files away");
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/x"), "{}");
    tree.writeWritten(QStringLiteral("/audio/x"), "{}");
    tree.writeWritten(QStringLiteral("/audio/y"), "{}");
    tree.writeWritten(QStringLiteral("/video/x"), "{}");
    for (const char* name : { "write", "write/audio", "write/audio/y" })
        require(::chown(nameIn(tree, name).constData(), nobody, nobody));
    // As root leaves them, the second one with a umask of 077.
    require(::chmod(nameIn(tree, "write/audio/x").constData(), 0600));
    require(::chmod(nameIn(tree, "default/x").constData(), 0600));

    QCOMPARE(inspect(tree),
             QStringList({ QStringLiteral("finds unreadable default/x: user 'nobody' cannot read "
                                          "it; change its owner (chown nobody) or its mode"),
                           QStringLiteral("stops unusable write/audio/x: user 'nobody' cannot "
                                          "read it; change its owner (chown nobody) or its mode"),
                           QStringLiteral("stops unusable write/video: user 'nobody' cannot read "
                                          "and write it; change its owner (chown nobody) or its "
                                          "mode") }));
}

QTEST_GUILESS_MAIN(tst_treecheck)
#include "tst_treecheck.moc"
