// One system call fails on a sound file or directory, once: no value is lost, none is made up, and
// nothing ends by a signal. Each call that the program makes on it is tried, with one error, in
// full with each.

#include "commandline.h"

#include "tests/support/repeats.h"

#include <QFile>
#include <QMap>
#include <QRegularExpression>
#include <QTest>

#include <iterator>
#include <vector>

namespace {

const QString volume = QStringLiteral("/audio/volume");
const char* const errors[] = { "EIO", "EMFILE", "EACCES", "ENOMEM" };

/// The calls that look at a file or directory, or read it.
const QString readingCalls = QStringLiteral(
    "openat,read,getdents64,access,faccessat2,stat,lstat,fstat,newfstatat,statx,readlink");

/// One call, by its name and how often it was made up to then.
struct Call
{
    QString name;
    int count = 0;
};

/// The program under strace, which looks at the calls on the files `watched` only.
ChildResult runTraced(const CommandLine& trees, const QStringList& watched,
                      const QStringList& options, const QStringList& words, const QByteArray& input)
{
    QStringList arguments = options;
    for (const QString& name : watched)
        arguments << QStringLiteral("-P") << name;
    arguments << QStringLiteral(TULO_CM_PROGRAM) << trees.arguments(words);
    ChildProcess child(QStringLiteral("strace"), arguments);
    // The leak checker cannot work in a process that is traced already.
    child.setVariable(QStringLiteral("ASAN_OPTIONS"), QStringLiteral("detect_leaks=0"));
    if (!child.start())
        return ChildResult();
    child.writeInput(input);
    child.closeInput();
    return child.finish();
}

std::vector<Call> callsOf(const CommandLine& trees, const QStringList& watched,
                          const QStringList& words, const QByteArray& input)
{
    const QString traceFile = trees.tree.path() + QLatin1String("/trace");
    runTraced(trees, watched,
              { QStringLiteral("-o"), traceFile, QStringLiteral("-e"),
                QStringLiteral("trace=") + readingCalls },
              words, input);
    QFile file(traceFile);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QRegularExpression line(QStringLiteral("^(\\w+)\\("));
    QMap<QString, int> counts;
    std::vector<Call> calls;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray& text : lines) {
        const QString name = line.match(QString::fromUtf8(text)).captured(1);
        if (!name.isEmpty())
            calls.push_back({ name, ++counts[name] });
    }
    return calls;
}

ChildResult runWithFault(const CommandLine& trees, const QStringList& watched, const QString& call,
                         const QString& when, const char* error, const QStringList& words,
                         const QByteArray& input)
{
    return runTraced(
        trees, watched,
        { QStringLiteral("-o"), QStringLiteral("/dev/null"), QStringLiteral("-e"),
          QStringLiteral("trace=") + call, QStringLiteral("-e"),
          QStringLiteral("inject=%1:error=%2:when=%3").arg(call, QLatin1String(error), when) },
        words, input);
}

bool canTrace()
{
    return ChildProcess::run(QStringLiteral("strace"), { QStringLiteral("true") }).exitCode == 0;
}

} // namespace

class tst_ReadFaults : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { m_canTrace = canTrace(); }

    void faultOnASoundFileLosesNoValue_data();
    void faultOnASoundFileLosesNoValue();
    void faultOnADirectoryIsToldAndLeavesItWhole_data();
    void faultOnADirectoryIsToldAndLeavesItWhole();

private:
    bool m_canTrace = false;
};

void tst_ReadFaults::faultOnASoundFileLosesNoValue_data()
{
    QTest::addColumn<bool>("isWritten");
    QTest::addColumn<bool>("failsWritten");
    QTest::newRow("written file") << true << true;
    QTest::newRow("default file of a written one") << true << false;
    QTest::newRow("default file") << false << false;
}

void tst_ReadFaults::faultOnASoundFileLosesNoValue()
{
    if (!m_canTrace)
        QSKIP("needs strace and the right to trace a process");
    QFETCH(const bool, isWritten);
    QFETCH(const bool, failsWritten);
    const CommandLine trees;
    const QByteArray written = isWritten ? R"({"value":{"int":60}})" : QByteArray();
    const auto restore = [&trees, &written] {
        if (written.isNull())
            QFile::remove(trees.tree.writePath() + volume);
        else
            trees.tree.writeWritten(volume, written);
    };
    const QStringList watched { (failsWritten ? trees.tree.writePath() : trees.tree.defaultPath())
                                + volume };
    // What is read is answered after the change, too.
    const QByteArray input = "op /settings/audio/volume add 5\nget /settings/audio/volume\n";
    const QStringList shell { QStringLiteral("shell") };
    const QByteArray oldValue = isWritten ? "60\n" : "35\n";
    const QByteArray newValue = isWritten ? "65\n" : "40\n";
    restore();
    const QByteArray defaults = trees.tree.readDefault(volume);
    const std::vector<Call> calls = callsOf(trees, watched, shell, input);
    QVERIFY(calls.size() > 5);

    int answered = 0;
    int refused = 0;
    size_t next = 0;
    for (const Call& call : calls) {
        ++next;
        for (size_t i = 0; i < size_t(repeats(1, int(std::size(errors)))); ++i) {
            const char* const error = errors[(next + i) % std::size(errors)];
            const QByteArray place =
                call.name.toUtf8() + ' ' + QByteArray::number(call.count) + ' ' + error + ": ";
            restore();

            const ChildResult result = runWithFault(
                trees, watched, call.name, QString::number(call.count), error, shell, input);

            const QByteArray output = place + result.standardOutput + result.standardError;
            QVERIFY2(result.signal == 0, output);
            const int value = trees.tree.readWrittenRoles(volume)
                                  .value(QStringLiteral("value"))
                                  .toHash()
                                  .value(QStringLiteral("int"))
                                  .toInt();
            const bool isChanged = result.standardOutput.startsWith(newValue);
            if (isChanged) {
                ++answered;
                QVERIFY2(QByteArray::number(value) + '\n' == newValue, output);
            } else {
                ++refused;
                QVERIFY2(!result.standardError.isEmpty(), output);
                QVERIFY2(trees.tree.readWritten(volume) == written, output);
            }
            // The second answer is right or an error.
            const QByteArray rest = result.standardOutput.mid(isChanged ? newValue.size() : 0);
            const QByteArray current = isChanged ? newValue : oldValue;
            QVERIFY2(rest == current || (rest.isEmpty() && !result.standardError.isEmpty()),
                     output);
            QCOMPARE(trees.tree.readDefault(volume), defaults);
        }
    }
    // Both ways were tried.
    QVERIFY(answered > 0);
    QVERIFY(refused > 0);
    qInfo("%d calls: %d changes made, %d refused", int(calls.size()), answered, refused);
}

void tst_ReadFaults::faultOnADirectoryIsToldAndLeavesItWhole_data()
{
    QTest::addColumn<bool>("failsWritten");
    QTest::newRow("writable tree") << true;
    QTest::newRow("default tree") << false;
}

void tst_ReadFaults::faultOnADirectoryIsToldAndLeavesItWhole()
{
    if (!m_canTrace)
        QSKIP("needs strace and the right to trace a process");
    QFETCH(const bool, failsWritten);
    const CommandLine trees;
    trees.tree.writeWritten(QStringLiteral("/presets/two"), R"({"value":{"string":"fm:90"}})");
    const QStringList watched { (failsWritten ? trees.tree.writePath() : trees.tree.defaultPath())
                                + QLatin1String("/presets") };
    const QByteArray input = "ls /settings/presets\nls /settings/presets\n";
    const QStringList shell { QStringLiteral("shell") };
    const QByteArray listing = trees.run("ls /settings/presets").standardOutput;
    QCOMPARE(listing.count('\n'), 2);

    // Twice, so that it is not made up for by asking again. Once is: that is invisible. The first
    // call of all looks for what another image wants to have moved.
    for (const char* error : errors) {
        const ChildResult once = runWithFault(trees, watched, QStringLiteral("openat"),
                                              QStringLiteral("2"), error, shell, input);
        const ChildResult twice = runWithFault(trees, watched, QStringLiteral("openat"),
                                               QStringLiteral("2..3"), error, shell, input);

        QCOMPARE(once.standardOutput, listing + listing);
        QCOMPARE(once.standardError, QByteArray());
        QCOMPARE(twice.standardOutput, listing);
        QVERIFY2(twice.standardError.contains("/presets' cannot be read: "), twice.standardError);
    }
}

QTEST_GUILESS_MAIN(tst_ReadFaults)
#include "tst_read_faults.moc"
