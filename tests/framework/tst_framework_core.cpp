#include "api/core/tulo.h"

#include "api/core/model/cmpath.h"
#include "tests/support/childprocess.h"

#include <QTest>
#include <QThread>

#include <csignal>
#include <sstream>

/// A type that nothing registers: it cannot be queued.
struct Unregistered
{
    int number = 0;
};

class Sender : public QObject
{
    Q_OBJECT

signals:
    void plain();
    void known(const QString& text, int number);
    void pointer(Unregistered* pointer);
    void unregistered(const Unregistered& argument);
    void path(const CMPath& path);
};

class Receiver : public QObject
{
    Q_OBJECT

public:
    int calls = 0;

public slots:
    void take() { ++calls; }
    void takeKnown(const QString&, int) { ++calls; }
    void takePointer(Unregistered*) { ++calls; }
    void takeUnregistered(const Unregistered&) { ++calls; }
    void takePath(const CMPath&) { ++calls; }
};

/// Assertions, checked connections, and the function names of entry records.
class tst_framework_core : public QObject
{
    Q_OBJECT

private slots:
    void functionNameIsScopedByItsClass_data();
    void functionNameIsScopedByItsClass();
    void assertionPrintsConditionAndPlaceAndAborts();
    void assertionWithTextPrintsTheText();
    void assertionThatHoldsDoesNothing();
    void directConnectionNeedsNoRegisteredType();
    void queuedConnectionOfKnownTypesDelivers();
    void queuedPointersPass();
    void connectionWithinAThreadIsDirect();
    void queuedConnectionOfUnregisteredTypeAborts();
    void connectionAcrossThreadsOfUnregisteredTypeAborts();
    void connectionAcrossThreadsPassesOnceRegistered();
    void failedConnectionAborts();
    void connectionWithoutOneOfTheTwoAborts_data();
    void connectionWithoutOneOfTheTwoAborts();
    void checkRegistersNothing();
};

void tst_framework_core::functionNameIsScopedByItsClass_data()
{
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<QByteArray>("className");
    QTest::addColumn<QByteArray>("name");
    const auto row = [](const char* signature, const char* className, const char* name) {
        QTest::newRow(signature) << QByteArray(signature) << QByteArray(className)
                                 << QByteArray(name);
    };
    row("virtual void Worker::trace(const Path&)", "Worker", "Worker::trace");
    row("Worker::Worker(const QVariantHash&)", "Worker", "Worker::Worker");
    row("TuloRoles Worker::load(const QString&, bool*)", "Worker", "Worker::load");
    row("static QString Worker::path(const Path&)", "Worker", "Worker::path");
    row("void Worker::run(std::function<void(Worker::Kind)>)", "Worker", "Worker::run");
    row("Worker::Kind Worker::kind() const", "Worker", "Worker::kind");
    row("void freeFunction(int)", "Worker", "freeFunction");
    row("void Other::run(int)", "Worker", "Other::run");
    row("noParameters", "Worker", "noParameters");
}

void tst_framework_core::functionNameIsScopedByItsClass()
{
    QFETCH(QByteArray, signature);
    QFETCH(QByteArray, className);
    QFETCH(QByteArray, name);

    QCOMPARE(QByteArray::fromStdString(
                 dbglog_scopedFunction(signature.toStdString(), className.toStdString())),
             name);
}

void tst_framework_core::assertionPrintsConditionAndPlaceAndAborts()
{
    const ChildResult child = ChildProcess::runInChild([] {
        const int number = 1;
        TULO_ASSERT(number == 2);
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("ASSERT: \"number == 2\" in file "), child.standardError);
    QVERIFY2(child.standardError.contains("tst_framework_core.cpp, line "), child.standardError);
}

void tst_framework_core::assertionWithTextPrintsTheText()
{
    const ChildResult child =
        ChildProcess::runInChild([] { TULO_ASSERT_TEXT(false, "index out of range"); });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("ASSERT: \"index out of range\" in file "),
             child.standardError);
}

void tst_framework_core::assertionThatHoldsDoesNothing()
{
    int evaluated = 0;
    TULO_ASSERT(++evaluated == 1);

    QCOMPARE(evaluated, 1);
}

void tst_framework_core::directConnectionNeedsNoRegisteredType()
{
    Sender sender;
    Receiver receiver;
    checkedConnect(&sender, &Sender::unregistered, &receiver, &Receiver::takeUnregistered,
                   Qt::DirectConnection);

    emit sender.unregistered(Unregistered());

    QCOMPARE(receiver.calls, 1);
}

void tst_framework_core::queuedConnectionOfKnownTypesDelivers()
{
    Sender sender;
    Receiver receiver;
    checkedConnect(&sender, &Sender::known, &receiver, &Receiver::takeKnown, Qt::QueuedConnection);

    emit sender.known(QStringLiteral("a"), 1);
    QCOMPARE(receiver.calls, 0);
    QCoreApplication::processEvents();

    QCOMPARE(receiver.calls, 1);
}

void tst_framework_core::queuedPointersPass()
{
    Sender sender;
    Receiver receiver;

    QVERIFY(verifyConnectionSignalParameters(&sender, &Sender::pointer, &receiver,
                                             Qt::QueuedConnection));
}

void tst_framework_core::connectionWithinAThreadIsDirect()
{
    Sender sender;
    Receiver receiver;
    checkedConnect(&sender, &Sender::unregistered, &receiver, &Receiver::takeUnregistered);

    emit sender.unregistered(Unregistered());

    QCOMPARE(receiver.calls, 1);
}

void tst_framework_core::queuedConnectionOfUnregisteredTypeAborts()
{
    const ChildResult child = ChildProcess::runInChild([] {
        Sender sender;
        Receiver receiver;
        checkedConnect(&sender, &Sender::unregistered, &receiver, &Receiver::takeUnregistered,
                       Qt::QueuedConnection);
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains(
                 "\"verifyConnectionSignalParameters(sender, signal, receiver, type)\""),
             child.standardError);
}

void tst_framework_core::connectionAcrossThreadsOfUnregisteredTypeAborts()
{
    const ChildResult child = ChildProcess::runInChild([] {
        QThread thread;
        Sender sender;
        Receiver receiver;
        sender.moveToThread(&thread);
        checkedConnect(&sender, &Sender::path, &receiver, &Receiver::takePath);
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains(
                 "\"verifyConnectionSignalParameters(sender, signal, receiver, type)\""),
             child.standardError);
}

void tst_framework_core::connectionAcrossThreadsPassesOnceRegistered()
{
    const ChildResult child = ChildProcess::runInChild([] {
        CMPath::registerMetaType();
        QThread thread;
        Sender sender;
        Receiver receiver;
        sender.moveToThread(&thread);
        checkedConnect(&sender, &Sender::path, &receiver, &Receiver::takePath);
        emit sender.path(CMPath(QStringLiteral("/settings/a")));
        QCOMPARE(receiver.calls, 1);
    });

    QCOMPARE(child.signal, 0);
    QVERIFY2(child.exitCode == 0, child.standardOutput);
}

void tst_framework_core::failedConnectionAborts()
{
    const ChildResult child = ChildProcess::runInChild([] {
        Sender sender;
        Receiver receiver;
        for (int i = 0; i < 2; ++i) {
            checkedConnect(&sender, &Sender::plain, &receiver, &Receiver::take,
                           Qt::ConnectionType(Qt::DirectConnection | Qt::UniqueConnection));
        }
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("ASSERT: \"connection\" in file "), child.standardError);
}

void tst_framework_core::connectionWithoutOneOfTheTwoAborts_data()
{
    QTest::addColumn<bool>("hasSender");
    QTest::newRow("no sender") << false;
    QTest::newRow("no receiver") << true;
}

void tst_framework_core::connectionWithoutOneOfTheTwoAborts()
{
    QFETCH(bool, hasSender);

    const ChildResult child = ChildProcess::runInChild([hasSender] {
        const Sender sender;
        const Receiver receiver;
        checkedConnect(hasSender ? &sender : nullptr, &Sender::plain,
                       hasSender ? nullptr : &receiver, &Receiver::take);
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("ASSERT: \"connection\" in file "), child.standardError);
}

void tst_framework_core::checkRegistersNothing()
{
    const Sender sender;
    const Receiver receiver;

    const bool queueable = verifyConnectionSignalParameters(&sender, &Sender::unregistered,
                                                            &receiver, Qt::QueuedConnection);

    QVERIFY(!queueable);
    QCOMPARE(QMetaType::type("Unregistered"), int(QMetaType::UnknownType));
}

QTEST_GUILESS_MAIN(tst_framework_core)
#include "tst_framework_core.moc"
