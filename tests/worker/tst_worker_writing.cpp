#include "changefixture.h"

#include <QTest>

#include <QDirIterator>
#include <QTextCodec>

#include <sys/stat.h>
#include <unistd.h>

// ---------------------------------------------------------------------------------------------
// Calls of the worker that tests look at or change; each goes on to the real one otherwise.
// ---------------------------------------------------------------------------------------------

namespace {

struct Calls
{
    std::function<void(int)> onFsync;
    std::function<void(const char*, const char*)> onRename;
    /// Gets how many bytes are to be written and returns how many may be; below 1 is returned
    /// as it is.
    std::function<qint64(qint64)> onWrite;
    std::function<QByteArray(const QVariant&)> onSerialize;
};

} // namespace

static Calls calls; // NOLINT: reset after every test

int realFsync(int file) asm("__real_fsync");
int wrappedFsync(int file) asm("__wrap_fsync");
int realRename(const char* from, const char* to) asm("__real_rename");
int wrappedRename(const char* from, const char* to) asm("__wrap_rename");
qint64 realWrite(QIODevice* device, const char* bytes,
                 qint64 size) asm("__real__ZN9QIODevice5writeEPKcx");
qint64 wrappedWrite(QIODevice* device, const char* bytes,
                    qint64 size) asm("__wrap__ZN9QIODevice5writeEPKcx");
QByteArray realSerialize(const QVariant& value) asm("__real__ZN8TuloJson9serializeERK8QVariant");
QByteArray wrappedSerialize(const QVariant& value) asm("__wrap__ZN8TuloJson9serializeERK8QVariant");

int wrappedFsync(int file)
{
    if (calls.onFsync)
        calls.onFsync(file);
    return realFsync(file);
}

int wrappedRename(const char* from, const char* to)
{
    if (calls.onRename)
        calls.onRename(from, to);
    return realRename(from, to);
}

qint64 wrappedWrite(QIODevice* device, const char* bytes, qint64 size)
{
    const qint64 allowed = calls.onWrite ? calls.onWrite(size) : size;
    return allowed < 1 ? allowed : realWrite(device, bytes, allowed);
}

QByteArray wrappedSerialize(const QVariant& value)
{
    return calls.onSerialize ? calls.onSerialize(value) : realSerialize(value);
}

// ---------------------------------------------------------------------------------------------

class tst_WorkerWriting : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void fileHoldsTheSerialisedRolesAndNothingElse();
    void missingDirectoriesAreMade();
    void permissionsAreTheProcessDefaults();
    void staleTemporaryFileIsReused();
    void stepsComeInOrder();
    void readerOfTheOldFileKeepsItWhole();
    void failedRenameLeavesTheOldTarget();
    void encryptedRolesStayPlainWithoutEncryption();
    void encryptedRolesHoldNoPlainValue();
    void handlerThatIsOffForWrittenValuesIsNotCalled();
    void handlerIsNotAskedAboutPlainRoles();
    void encryptionChangesNothingButTheFile();
    void encryptionComesAfterTheFileWasOpened();
    void shortWritesAreContinued();
    void writeWithoutProgressFails_data();
    void writeWithoutProgressFails();
    void emptySerialisationIsAnEmptyFile();
    void nullSerialisationIsAFailure();
    void namesAreRenamedInUtf8WhateverTheLocale();
    void largeRolesAreWrittenWhole();
    void repeatedWritesLeaveNoFileOpen();

private:
    void write(const QString& path, const QVariantHash& roles) const;
    /// The names of the files that this process has open.
    static QStringList openFiles();

    std::unique_ptr<ChangeFixture> m_fixture;
};

void tst_WorkerWriting::init()
{
    m_fixture = std::make_unique<ChangeFixture>();
}

void tst_WorkerWriting::cleanup()
{
    calls = Calls();
    m_fixture->log.verifyNothingUnexpected();
    m_fixture.reset();
}

void tst_WorkerWriting::write(const QString& path, const QVariantHash& roles) const
{
    m_fixture->worker->writeFile(m_fixture->fileName(path), TuloRoles(TuloHash(roles)));
}

QStringList tst_WorkerWriting::openFiles()
{
    QStringList names;
    QDirIterator iterator("/proc/self/fd"_s, QDir::AllEntries | QDir::System);
    while (iterator.hasNext())
        names.append(QFile::symLinkTarget(iterator.next()));
    return names;
}

void tst_WorkerWriting::fileHoldsTheSerialisedRolesAndNothingElse()
{
    write("/audio/volume"_s, { { TuloRoles::Value(), intValue(5) }, { TuloRoles::Id(), "ä\n"_s } });

    QCOMPARE(m_fixture->tree.readWritten("/audio/volume"_s),
             QByteArray("{\"id\":\"ä\\n\",\"value\":{\"int\":5}}"));
    QCOMPARE(m_fixture->tree.writtenEntries(), QStringList({ "/audio/"_s, "/audio/volume"_s }));
    QCOMPARE(m_fixture->log.messages(log4cplus::INFO_LOG_LEVEL),
             QStringList { "written file: "_s + m_fixture->fileName("/audio/volume"_s) });
}

void tst_WorkerWriting::missingDirectoriesAreMade()
{
    write("/a/b/c/d"_s, {});

    QCOMPARE(m_fixture->tree.writtenEntries(),
             QStringList({ "/a/"_s, "/a/b/"_s, "/a/b/c/"_s, "/a/b/c/d"_s }));
}

void tst_WorkerWriting::permissionsAreTheProcessDefaults()
{
    const mode_t before = ::umask(027);
    write("/a/b"_s, {});
    ::umask(before);

    struct stat status = {};
    QCOMPARE(::stat(QFile::encodeName(m_fixture->fileName("/a/b"_s)), &status), 0);
    QCOMPARE(status.st_mode & 07777U, 0640U);
    QCOMPARE(::stat(QFile::encodeName(m_fixture->fileName("/a"_s)), &status), 0);
    QCOMPARE(status.st_mode & 07777U, 0750U);
}

void tst_WorkerWriting::staleTemporaryFileIsReused()
{
    m_fixture->tree.writeWritten("/audio/.volume"_s, QByteArray(5000, 'x'));
    struct stat stale = {};
    QCOMPARE(::stat(QFile::encodeName(m_fixture->fileName("/audio/.volume"_s)), &stale), 0);

    write("/audio/volume"_s, { { TuloRoles::Timestamp(), 12 } });

    struct stat written = {};
    QCOMPARE(::stat(QFile::encodeName(m_fixture->fileName("/audio/volume"_s)), &written), 0);
    QCOMPARE(written.st_ino, stale.st_ino);
    QCOMPARE(m_fixture->tree.readWritten("/audio/volume"_s), QByteArray(R"({"timestamp":12})"));
    QCOMPARE(m_fixture->tree.writtenEntries(), QStringList({ "/audio/"_s, "/audio/volume"_s }));
}

// What a crash between two steps would leave.
void tst_WorkerWriting::stepsComeInOrder()
{
    const QString target = m_fixture->fileName("/audio/volume"_s);
    const QString temporary = m_fixture->fileName("/audio/.volume"_s);
    m_fixture->tree.writeWritten("/audio/volume"_s, "old");
    QStringList steps;
    const auto note = [&](const QString& step) {
        steps.append(step + "; "_s
                     + QString::fromUtf8(m_fixture->tree.readWritten("/audio/volume"_s)) + ", "_s
                     + QString::fromUtf8(m_fixture->tree.readWritten("/audio/.volume"_s))
                     + (openFiles().contains(temporary) ? ", open"_s : QString()));
    };
    calls.onWrite = [&](qint64 size) {
        note("write"_s);
        return size;
    };
    calls.onFsync = [&](int file) {
        note("fsync "_s + QFile::symLinkTarget("/proc/self/fd/%1"_s.arg(file)));
    };
    calls.onRename = [&](const char* from, const char* to) {
        note("rename "_s + QString::fromUtf8(from) + " "_s + QString::fromUtf8(to));
    };

    write("/audio/volume"_s, { { TuloRoles::Timestamp(), 12 } });
    note("end"_s);

    const QStringList expected {
        "write; old, , open"_s,
        "fsync "_s + temporary + "; old, {\"timestamp\":12}, open"_s,
        "rename "_s + temporary + " "_s + target + "; old, {\"timestamp\":12}"_s,
        "end; {\"timestamp\":12}, "_s,
    };
    QCOMPARE(steps, expected);
}

void tst_WorkerWriting::readerOfTheOldFileKeepsItWhole()
{
    m_fixture->tree.writeWritten("/audio/volume"_s, R"({"id":"the old one, which is longer"})");
    QFile reader(m_fixture->fileName("/audio/volume"_s));
    QVERIFY(reader.open(QIODevice::ReadOnly));

    write("/audio/volume"_s, { { TuloRoles::Timestamp(), 12 } });

    QCOMPARE(reader.readAll(), QByteArray(R"({"id":"the old one, which is longer"})"));
    QCOMPARE(m_fixture->tree.readWritten("/audio/volume"_s), QByteArray(R"({"timestamp":12})"));
}

void tst_WorkerWriting::failedRenameLeavesTheOldTarget()
{
    m_fixture->tree.writeWritten("/audio/volume/inside"_s, "kept");
    const QStringList before = m_fixture->tree.writtenEntries();

    write("/audio/volume"_s, { { TuloRoles::Timestamp(), 12 } });

    QCOMPARE(m_fixture->tree.writtenEntries(), before);
    QCOMPARE(m_fixture->tree.readWritten("/audio/volume/inside"_s), QByteArray("kept"));
    m_fixture->log.expect(log4cplus::ERROR_LOG_LEVEL,
                          "Settings: path '"_s + m_fixture->fileName("/audio/.volume"_s)
                              + "' rename to path '"_s + m_fixture->fileName("/audio/volume"_s)
                              + "' failed"_s);
}

void tst_WorkerWriting::encryptedRolesStayPlainWithoutEncryption()
{
    write("/secret"_s, { { TuloRoles::Value(), intValue(5) }, { TuloRoles::Encrypted(), true } });

    QCOMPARE(m_fixture->tree.readWritten("/secret"_s),
             QByteArray(R"({"encrypted":true,"value":{"int":5}})"));
}

void tst_WorkerWriting::encryptedRolesHoldNoPlainValue()
{
    RecordingHandler handler;
    m_fixture->worker->m_encryptionHandler = &handler;

    write("/secret"_s,
          { { TuloRoles::Value(), intValue(5) },
            { TuloRoles::Encrypted(), true },
            { TuloRoles::Timestamp(), 12 } });

    QCOMPARE(m_fixture->tree.readWritten("/secret"_s),
             QByteArray(R"({"encryptedValue":"encrypted","timestamp":12})"));
    QCOMPARE(handler.calls,
             QStringList(
                 { "enabled 1"_s, "encrypt {\"int\":5} 1 "_s + m_fixture->fileName("/secret"_s) }));
}

void tst_WorkerWriting::handlerThatIsOffForWrittenValuesIsNotCalled()
{
    RecordingHandler handler;
    handler.enabledForDefaults = true;
    handler.enabledForWritten = false;
    m_fixture->worker->m_encryptionHandler = &handler;

    write("/secret"_s, { { TuloRoles::Value(), intValue(5) }, { TuloRoles::Encrypted(), true } });

    QCOMPARE(m_fixture->tree.readWritten("/secret"_s),
             QByteArray(R"({"encrypted":true,"value":{"int":5}})"));
    QCOMPARE(handler.calls, QStringList { "enabled 1"_s });
}

void tst_WorkerWriting::handlerIsNotAskedAboutPlainRoles()
{
    RecordingHandler handler;
    m_fixture->worker->m_encryptionHandler = &handler;

    write("/open"_s, { { TuloRoles::Value(), intValue(5) }, { TuloRoles::Encrypted(), false } });

    QCOMPARE(m_fixture->tree.readWritten("/open"_s),
             QByteArray(R"({"encrypted":false,"value":{"int":5}})"));
    QCOMPARE(handler.calls, QStringList());
}

void tst_WorkerWriting::encryptionChangesNothingButTheFile()
{
    CMSettingsWorker* worker = m_fixture->worker.get();
    m_fixture->tree.writeDefault("/secret"_s, R"({"value":{"int":3},"encrypted":true})");
    m_fixture->set("/secret"_s, intValue(5));
    const QByteArray pending = m_fixture->pending("/secret"_s);
    const QByteArray cached = json(worker->m_valueCache.object("/secret"_s)->roles);
    RecordingHandler handler;
    worker->m_encryptionHandler = &handler;

    const TuloRoles& roles = *worker->m_pendingWrites.constFind(m_fixture->fileName("/secret"_s));
    worker->writeFile(m_fixture->fileName("/secret"_s), roles);

    QVERIFY(m_fixture->tree.readWritten("/secret"_s).contains(R"("encryptedValue":"encrypted")"));
    QCOMPARE(m_fixture->pending("/secret"_s), pending);
    QCOMPARE(json(worker->m_valueCache.object("/secret"_s)->roles), cached);
}

void tst_WorkerWriting::encryptionComesAfterTheFileWasOpened()
{
    RecordingHandler handler;
    m_fixture->worker->m_encryptionHandler = &handler;
    QByteArray temporary;
    handler.onEncrypt = [&] {
        temporary = m_fixture->tree.readWritten("/.secret"_s);
    };
    m_fixture->tree.writeWritten("/.secret"_s, "stale");

    write("/secret"_s, { { TuloRoles::Encrypted(), true } });

    QVERIFY(!temporary.isNull());
    QVERIFY(temporary.isEmpty());
}

void tst_WorkerWriting::shortWritesAreContinued()
{
    QList<qint64> sizes;
    calls.onWrite = [&sizes](qint64 size) {
        sizes.append(size);
        return qMin(size, qint64(7));
    };

    write("/volume"_s, { { TuloRoles::Timestamp(), 12 }, { TuloRoles::Id(), "left"_s } });

    QCOMPARE(m_fixture->tree.readWritten("/volume"_s),
             QByteArray(R"({"id":"left","timestamp":12})"));
    QCOMPARE(sizes, QList<qint64>({ 28, 21, 14, 7 }));
}

void tst_WorkerWriting::writeWithoutProgressFails_data()
{
    QTest::addColumn<int>("result");

    QTest::newRow("nothing") << 0;
    QTest::newRow("error") << -1;
}

void tst_WorkerWriting::writeWithoutProgressFails()
{
    QFETCH(int, result);
    m_fixture->tree.writeWritten("/volume"_s, "old");
    int count = 0;
    calls.onWrite = [&](qint64) {
        return ++count == 1 ? qint64(7) : qint64(result);
    };

    write("/volume"_s, { { TuloRoles::Timestamp(), 12 }, { TuloRoles::Id(), "left"_s } });

    QCOMPARE(count, 2);
    QCOMPARE(m_fixture->tree.readWritten("/volume"_s), QByteArray("old"));
    QCOMPARE(m_fixture->tree.writtenEntries(), QStringList { "/volume"_s });
    m_fixture->log.expect(log4cplus::ERROR_LOG_LEVEL,
                          "Settings: path '"_s + m_fixture->fileName("/.volume"_s)
                              + "' write to file failed"_s);
}

void tst_WorkerWriting::emptySerialisationIsAnEmptyFile()
{
    calls.onSerialize = [](const QVariant&) {
        return QByteArray("");
    };
    QVERIFY(!calls.onSerialize(QVariant()).isNull());

    write("/volume"_s, { { TuloRoles::Timestamp(), 12 } });

    QVERIFY(!m_fixture->tree.readWritten("/volume"_s).isNull());
    QVERIFY(m_fixture->tree.readWritten("/volume"_s).isEmpty());
    QCOMPARE(m_fixture->log.messages(log4cplus::INFO_LOG_LEVEL),
             QStringList { "written file: "_s + m_fixture->fileName("/volume"_s) });
}

void tst_WorkerWriting::nullSerialisationIsAFailure()
{
    calls.onSerialize = [](const QVariant&) {
        return QByteArray();
    };

    write("/volume"_s, { { TuloRoles::Timestamp(), 12 } });

    QCOMPARE(m_fixture->tree.writtenEntries(), QStringList());
    m_fixture->log.expect(log4cplus::ERROR_LOG_LEVEL,
                          "Settings: path '"_s + m_fixture->fileName("/.volume"_s)
                              + "' could not serialize variant value"_s);
}

// The file is opened under the locale's name, so outside UTF-8 the rename finds nothing: the
// names are UTF-8 all the same.
void tst_WorkerWriting::namesAreRenamedInUtf8WhateverTheLocale()
{
    QList<QByteArray> names;
    calls.onRename = [&names](const char* from, const char* to) {
        names = { from, to };
    };
    QTextCodec* before = QTextCodec::codecForLocale();
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("ISO-8859-1"));
    write("/ä"_s, {});
    QTextCodec::setCodecForLocale(before);

    QCOMPARE(names,
             QList<QByteArray>(
                 { m_fixture->fileName("/.ä"_s).toUtf8(), m_fixture->fileName("/ä"_s).toUtf8() }));
    QCOMPARE(m_fixture->tree.writtenEntries(), QStringList());
    m_fixture->log.expect(log4cplus::ERROR_LOG_LEVEL,
                          "Settings: path '"_s + m_fixture->fileName("/.ä"_s)
                              + "' rename to path '"_s + m_fixture->fileName("/ä"_s)
                              + "' failed"_s);
}

void tst_WorkerWriting::largeRolesAreWrittenWhole()
{
    // Beyond what a file buffers, so that it is written past the buffer.
    const QString text(200000, QLatin1Char('x'));

    write("/large"_s, { { TuloRoles::Id(), text } });

    QCOMPARE(m_fixture->tree.readWritten("/large"_s), "{\"id\":\"" + text.toUtf8() + "\"}");
}

void tst_WorkerWriting::repeatedWritesLeaveNoFileOpen()
{
    write("/volume"_s, {});
    m_fixture->tree.writeWritten("/directory/inside"_s, "kept");
    const int before = openFiles().size();

    write("/volume"_s, {});
    write("/directory"_s, {});

    QCOMPARE(openFiles().size(), before);
    m_fixture->log.expect(log4cplus::ERROR_LOG_LEVEL,
                          "Settings: path '"_s + m_fixture->fileName("/.directory"_s)
                              + "' rename to path '"_s + m_fixture->fileName("/directory"_s)
                              + "' failed"_s);
}

QTEST_GUILESS_MAIN(tst_WorkerWriting)
#include "tst_worker_writing.moc"
