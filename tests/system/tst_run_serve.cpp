#include "tests/support/childprocess.h"
#include "tests/support/terminal.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

namespace {

const QString program = QStringLiteral(TULO_CM_PROGRAM);

/// A folder in which ./run works as in a clone, with programs that are built already.
class Clone
{
public:
    explicit Clone(const QString& name = QString::fromUtf8("a cl\u00f6ne"))
        : m_folder(QDir::tempPath() + QLatin1Char('/') + name + QLatin1String("-XXXXXX"))
    {
        const QString tree = QStringLiteral(TULO_EXAMPLE_TREE);
        const QDir folder(m_folder.path());
        QFile build(folder.filePath(QStringLiteral("scripts/build")));
        const bool isMade = folder.mkpath(QStringLiteral("scripts"))
            && folder.mkpath(QStringLiteral("build/release")) && build.open(QIODevice::WriteOnly)
            && build.write("#!/bin/sh\n") > 0
            && build.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner)
            && QFile::copy(tree + QLatin1String("/../../run"), run())
            && QFile::link(QFileInfo(tree).path(), folder.filePath(QStringLiteral("examples")))
            && QFile::link(QFileInfo(program).path(),
                           folder.filePath(QStringLiteral("build/release/bin")))
            && QFile::link(QFileInfo(QStringLiteral(TULO_CATALOGUES)).path(),
                           folder.filePath(QStringLiteral("build/release/examples")));
        if (!isMade)
            qFatal("cannot make a clone");
    }

    QString run() const { return m_folder.filePath(QStringLiteral("run")); }

private:
    const QTemporaryDir m_folder;
};

/// ./run serve where there is no bus.
class Service
{
public:
    explicit Service(const Clone& clone)
        : m_process(clone.run(), { QStringLiteral("serve") })
    {
        m_process.removeVariable(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
        m_process.removeVariable(QStringLiteral("XDG_RUNTIME_DIR"));
        m_process.start();
    }

    bool serves() { return m_process.waitForError(": serving "); }

    /// Of its bus, as it says.
    QString address()
    {
        const QString error = QString::fromUtf8(m_process.standardError());
        return error.section(QStringLiteral("DBUS_SESSION_BUS_ADDRESS='"), 1)
            .section(QLatin1Char('\''), 0, 0);
    }

    ChildResult end()
    {
        m_process.sendSignal(SIGTERM);
        return finish();
    }

    ChildResult finish() { return m_process.finish(); }

private:
    ChildProcess m_process;
};

} // namespace

/// "./run serve" without a session bus, on a private one.
class TstRunServe : public QObject
{
    Q_OBJECT

private slots:
    void shellFindsTheNextService();
    void secondServiceIsRefused();
    void nameTooLongForASocketIsServed();
};

void TstRunServe::shellFindsTheNextService()
{
    const Clone clone;
    const QTemporaryDir home;
    Service first(clone);
    QVERIFY(first.serves());
    const QString address = first.address();
    Terminal terminal(120, 24);
    terminal.setVariable("HOME", QFile::encodeName(home.path()));
    terminal.start(program, { QStringLiteral("--bus"), address, QStringLiteral("shell") });
    QVERIFY(terminal.waitFor(QStringLiteral("/settings> ")));

    QCOMPARE(first.end().exitCode, 0);
    QVERIFY(terminal.waitFor(QStringLiteral("the service has gone")));
    Service next(clone);
    QVERIFY(next.serves());

    QCOMPARE(next.address(), address);
    QVERIFY(terminal.waitFor(QStringLiteral("the service is back")));
    QCOMPARE(next.end().exitCode, 0);
}

void TstRunServe::secondServiceIsRefused()
{
    const Clone clone;
    Service first(clone);
    QVERIFY(first.serves());

    const ChildResult second = Service(clone).finish();

    QCOMPARE(second.exitCode, 7);
    QCOMPARE(QString::fromUtf8(second.standardError),
             QStringLiteral("run: the example tree is served already, on the bus '%1'\n")
                 .arg(first.address()));
    QCOMPARE(first.end().exitCode, 0);
}

void TstRunServe::nameTooLongForASocketIsServed()
{
    const Clone clone(QString(100, QLatin1Char('x')));
    Service service(clone);

    QVERIFY(service.serves());

    QVERIFY(!service.address().contains(QLatin1String("xxx")));
    QCOMPARE(service.end().exitCode, 0);
}

QTEST_GUILESS_MAIN(TstRunServe)
#include "tst_run_serve.moc"
