#include "tests/client/scriptedservice.h"
#include "tests/daemon/servicefixture.h"
#include "tests/support/childprocess.h"
#include "tests/support/temporarytree.h"
#include "tests/support/waituntil.h"

#include "wire/messages.h"
#include "wire/names.h"

#include <tulo/remotesettings.h>

#include <QElapsedTimer>
#include <QFile>
#include <QPointer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include <csignal>
#include <unistd.h>

using namespace tulo;

namespace {

const QString path = QStringLiteral("/settings/audio/volume");
const QStringList valueRole { QStringLiteral("value") };

QVariantMap valueRoles(qlonglong value)
{
    return { { QStringLiteral("value"), value } };
}

bool waitForState(const Settings& settings, Settings::State state)
{
    return waitUntil([&] { return settings.state() == state; });
}

/// Waits until the service has taken in everything that was sent before.
bool settle(RemoteSettings& settings)
{
    return settings.status().wait();
}

/// The unique name of the last caller.
class SenderRecorder
{
public:
    explicit SenderRecorder(ScriptedService& service)
    {
        service.script = [this, &service](sd_bus_message* call) {
            name = sd_bus_message_get_sender(call);
            service.answerEmpty(call);
        };
    }

    QByteArray name;
};

/// Everything that a watch announces: "value 5", "data", "rows +3", "missed", "failed Limits".
class Announcements
{
public:
    explicit Announcements(std::unique_ptr<Watch> given)
        : watch(std::move(given))
    {
        QObject::connect(watch.get(), &Watch::changed, watch.get(), [this](const Event& event) {
            switch (event.kind) {
            case Event::Kind::Value:
                log.append(QStringLiteral("value ") + event.value.toString());
                break;
            case Event::Kind::Data:
                log.append(QStringLiteral("data"));
                break;
            case Event::Kind::Rows:
                log.append(QStringLiteral("rows %1 %2").arg(event.command).arg(event.version));
                break;
            }
        });
        QObject::connect(watch.get(), &Watch::missed, watch.get(),
                         [this] { log.append(QStringLiteral("missed")); });
        QObject::connect(watch.get(), &Watch::failed, watch.get(), [this](const Error& error) {
            log.append(QStringLiteral("failed ") + error.name());
        });
    }

    std::unique_ptr<Watch> watch;
    QStringList log;
};

} // namespace

class tst_RemoteSettings : public QObject
{
    Q_OBJECT

private slots:
    // Connection.
    void connectsAndBecomesReady();
    void withoutABusItIsAway();
    void withoutAServiceItIsAway();
    void requestsBeforeTheConnectionAreServed();
    void requestStartsTheService();
    void serviceThatCannotBeStartedIsUnavailable();
    void returningServiceIsReadyAndEventsWereMissed();
    void replacedServiceIsReadyAndEventsWereMissed();
    void lostBusIsConnectedAgain();
    void busThatComesLaterIsFound();
    void requestsOfALostConnectionFail();
    void stoppedBusNeverBlocks();
    void destructionFailsWhatIsNotAnswered();
    void handlerMayDestroyTheSettings();
    void handlerMayRunAnEventLoop();

    // Requests and answers.
    void requestsReachTheService();
    void whatIsNotAValueIsTheServicesToReject();
    void answersReachTheProgram();
    void malformedAnswersAreErrors_data();
    void malformedAnswersAreErrors();
    void errorsKeepTheirCode_data();
    void errorsKeepTheirCode();
    void errorOfManyNamesItsPath();
    void lateAnswersAreIgnored();
    void silentServiceHoldsNobodyUp();
    void clientWithoutRightsIsTold();
    void requestsThatCannotBeCarriedAreErrors();
    void hugeRequestsAreRefused();
    void onlySoManyCallsAreUnderWay();

    // Many paths.
    void getsOfOneTurnGoTogether();
    void getsOfDifferentRolesGoApart();
    void eachGetHasItsOwnError();
    void pathsThatDidNotFitAreAskedForAgain();
    void thousandsOfGetsAreSplit();
    void requestsKeepTheirOrder();
    void restOfPathsIsReadBeforeAChange();

    // Events.
    void watchesSeeTheirEvents();
    void eventsComeBeforeTheAnswer();
    void forgedSignalsAreIgnored();
    void malformedSignalsAreIgnored();
    void fewWatchesHaveTheirOwnRules();
    void manyWatchesShareOneRule();
    void watchesOfOddPathsAreServed_data();
    void watchesOfOddPathsAreServed();
    void refusedRuleFailsTheWatch();
    void watchIsThereBeforeTheNextRequest();

    // Other machines.
    void hostsBecomeAddresses_data();
    void hostsBecomeAddresses();
    void hostIsReachedThroughSsh();

private:
    const PrivateBus m_bus;
};

// ---------------------------------------------------------------------------------------------
// Connection.
// ---------------------------------------------------------------------------------------------

void tst_RemoteSettings::connectsAndBecomesReady()
{
    ScriptedService service(m_bus.address());
    RemoteSettings settings(m_bus.address());
    QSignalSpy states(&settings, &Settings::stateChanged);
    const Announcements watched(settings.watch(path));
    QCOMPARE(settings.state(), Settings::State::Connecting);

    QVERIFY(waitForState(settings, Settings::State::Ready));
    QVERIFY(settle(settings));

    QCOMPARE(states.size(), 1);
    QCOMPARE(settings.problem(), QString());
    // Nothing was there before that could have been missed.
    QCOMPARE(watched.log, QStringList());
}

void tst_RemoteSettings::withoutABusItIsAway()
{
    const QTemporaryDir directory;
    const QString address =
        QStringLiteral("unix:path=") + directory.filePath(QStringLiteral("bus"));
    RemoteSettings settings(address);
    const auto reply = settings.get(path, valueRole);
    QVERIFY(!reply.isFinished());

    QVERIFY(!reply.wait());

    QCOMPARE(settings.state(), Settings::State::Away);
    QCOMPARE(reply.error().code, ErrorCode::Unavailable);
    QCOMPARE(reply.error().path, path);
    QCOMPARE(
        settings.problem(),
        QStringLiteral("cannot connect to the bus '%1': No such file or directory").arg(address));
    QCOMPARE(reply.error().message, settings.problem());
    // While it pauses, too.
    const auto later = settings.set(path, true);
    QVERIFY(!later.isFinished());
    QVERIFY(!later.wait());
    QCOMPARE(later.error().code, ErrorCode::Unavailable);
}

void tst_RemoteSettings::withoutAServiceItIsAway()
{
    RemoteSettings settings(m_bus.address());
    const auto reply = settings.get(path, valueRole);

    QVERIFY(!reply.wait());

    QCOMPARE(settings.state(), Settings::State::Away);
    QCOMPARE(settings.problem(), QStringLiteral("no service on the bus '%1'").arg(m_bus.address()));
    QCOMPARE(reply.error(), (Error { ErrorCode::Unavailable, settings.problem(), path }));
}

void tst_RemoteSettings::requestsBeforeTheConnectionAreServed()
{
    ScriptedService service(m_bus.address());
    RemoteSettings settings(m_bus.address());

    const auto read = settings.get(path, valueRole);
    const auto changed = settings.set(path, true);

    QVERIFY(changed.wait());
    QVERIFY(read.isFinished());
    QVERIFY(!read.error());
}

void tst_RemoteSettings::requestStartsTheService()
{
    const TemporaryTree tree;
    tree.writeDefault(QStringLiteral("/.meta"), "{}");
    tree.writeDefault(QStringLiteral("/audio/volume"), R"({"value":{"int":35}})");
    const QTemporaryDir directory;
    const PrivateBus bus(PrivateBus::openPolicy() + "<servicedir>"
                         + QFile::encodeName(directory.path()) + "</servicedir>\n");
    const QStringList words { QStringLiteral(TULO_SETTINGSD_PROGRAM),
                              QStringLiteral("--default-path"),
                              tree.defaultPath(),
                              QStringLiteral("--write-path"),
                              tree.writePath(),
                              QStringLiteral("--bus"),
                              bus.address() };
    QFile file(directory.filePath(QStringLiteral("tulo.service")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("[D-BUS Service]\nName=org.tulo.ConfigurationManager1\nExec="
               + words.join(QLatin1Char(' ')).toUtf8() + '\n');
    file.close();
    RemoteSettings settings(bus.address());
    QVERIFY(waitForState(settings, Settings::State::Away));

    const auto reply = settings.get(path, valueRole);

    QVERIFY2(reply.wait(), qPrintable(reply.error().message));
    QCOMPARE(reply.value(), valueRoles(35));
    QVERIFY(waitForState(settings, Settings::State::Ready));
    const auto status = settings.status();
    QVERIFY(status.wait());
    QVERIFY(status.value().processId > 0);
    QCOMPARE(::kill(pid_t(status.value().processId), SIGTERM), 0);
    QVERIFY(waitForState(settings, Settings::State::Away));
}

void tst_RemoteSettings::serviceThatCannotBeStartedIsUnavailable()
{
    const QTemporaryDir directory;
    QFile file(directory.filePath(QStringLiteral("tulo.service")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("[D-BUS Service]\nName=org.tulo.ConfigurationManager1\nExec=/bin/false\n");
    file.close();
    const PrivateBus bus(PrivateBus::openPolicy() + "<servicedir>"
                         + QFile::encodeName(directory.path()) + "</servicedir>\n");
    RemoteSettings settings(bus.address());

    const auto reply = settings.get(path, valueRole);

    QVERIFY(!reply.wait());
    QCOMPARE(reply.error().code, ErrorCode::Unavailable);
    QVERIFY2(reply.error().message.startsWith(QLatin1String("the service cannot be started: ")),
             qPrintable(reply.error().message));
}

void tst_RemoteSettings::returningServiceIsReadyAndEventsWereMissed()
{
    ScriptedService service(m_bus.address());
    RemoteSettings settings(m_bus.address());
    const Announcements watched(settings.watch(path));
    QVERIFY(waitForState(settings, Settings::State::Ready));

    service.releaseName();
    QVERIFY(waitForState(settings, Settings::State::Away));
    QCOMPARE(watched.log, QStringList());
    service.takeName();
    QVERIFY(waitForState(settings, Settings::State::Ready));
    service.announce(wire::dataChanged, { path });
    QVERIFY(settle(settings));

    QCOMPARE(watched.log, QStringList({ QStringLiteral("missed"), QStringLiteral("data") }));
}

void tst_RemoteSettings::replacedServiceIsReadyAndEventsWereMissed()
{
    ScriptedService first(m_bus.address());
    RemoteSettings settings(m_bus.address());
    const Announcements watched(settings.watch(path));
    QVERIFY(waitForState(settings, Settings::State::Ready));
    QSignalSpy states(&settings, &Settings::stateChanged);

    ScriptedService second(m_bus.address());
    QVERIFY(waitUntil([&] { return states.size() == 2; }));
    first.announce(wire::dataChanged, { path });
    second.announce(wire::valueChanged, { path, qlonglong(5) });
    QVERIFY(settle(settings));

    QCOMPARE(settings.state(), Settings::State::Ready);
    QCOMPARE(watched.log, QStringList({ QStringLiteral("missed"), QStringLiteral("value 5") }));
}

void tst_RemoteSettings::lostBusIsConnectedAgain()
{
    PrivateBus bus;
    auto service = std::make_unique<ScriptedService>(bus.address());
    RemoteSettings settings(bus.address());
    const Announcements watched(settings.watch(path));
    QVERIFY(waitForState(settings, Settings::State::Ready));

    bus.kill();
    QVERIFY(waitForState(settings, Settings::State::Away));
    QVERIFY2(!settings.problem().isEmpty(), qPrintable(settings.problem()));
    bus.startAgain();
    service = std::make_unique<ScriptedService>(bus.address());
    QVERIFY(waitForState(settings, Settings::State::Ready));
    service->announce(wire::valueChanged, { path, qlonglong(7) });
    QVERIFY(settle(settings));

    QCOMPARE(watched.log, QStringList({ QStringLiteral("missed"), QStringLiteral("value 7") }));
}

void tst_RemoteSettings::busThatComesLaterIsFound()
{
    PrivateBus bus;
    bus.kill();
    RemoteSettings settings(bus.address());
    const Announcements watched(settings.watch(path));
    QVERIFY(waitForState(settings, Settings::State::Away));

    bus.startAgain();
    const ScriptedService service(bus.address());

    QVERIFY(waitForState(settings, Settings::State::Ready));
    QCOMPARE(watched.log, QStringList(QStringLiteral("missed")));
}

void tst_RemoteSettings::requestsOfALostConnectionFail()
{
    PrivateBus bus;
    ScriptedService service(bus.address());
    service.script = [&](sd_bus_message* call) {
        service.hold(call);
    };
    RemoteSettings settings(bus.address());
    const auto read = settings.get(path, valueRole);
    const auto changed = settings.set(path, true);
    QVERIFY(waitUntil([&] { return service.held.size() == 2; }));

    bus.kill();

    QVERIFY(!changed.wait());
    QVERIFY(read.isFinished());
    QCOMPARE(read.error().code, ErrorCode::Unavailable);
    QCOMPARE(changed.error().code, ErrorCode::Unavailable);
    QVERIFY2(read.error().message.contains(QLatin1String("was lost")),
             qPrintable(read.error().message));
}

void tst_RemoteSettings::stoppedBusNeverBlocks()
{
    const PrivateBus bus;
    ScriptedService service(bus.address());
    RemoteSettings settings(bus.address());
    QVERIFY(waitForState(settings, Settings::State::Ready));
    bus.stop();

    // More than the socket takes.
    QElapsedTimer clock;
    qint64 longestCallNs = 0;
    const QString text(4000, QLatin1Char('x'));
    for (int i = 0; i < 2000; ++i) {
        clock.start();
        const auto reply = settings.set(path, text);
        longestCallNs = std::max(longestCallNs, clock.nsecsElapsed());
        QVERIFY(!reply.isFinished());
    }
    // The event loop goes on: a timer is not held up.
    qint64 longestTurnNs = 0;
    int turns = 0;
    QTimer timer;
    timer.setTimerType(Qt::PreciseTimer);
    connect(&timer, &QTimer::timeout, this, [&] {
        longestTurnNs = std::max(longestTurnNs, clock.nsecsElapsed());
        clock.start();
        ++turns;
    });
    clock.start();
    timer.start(1);
    QVERIFY(waitUntil([&] { return turns >= 200; }));
    // Another one, which has not said hello to the bus.
    clock.start();
    auto other = std::make_unique<RemoteSettings>(bus.address());
    const auto reply = other->get(path, valueRole);
    QCoreApplication::processEvents();
    longestCallNs = std::max(longestCallNs, clock.nsecsElapsed());
    clock.start();
    other.reset();
    longestCallNs = std::max(longestCallNs, clock.nsecsElapsed());

    QCOMPARE(reply.error().code, ErrorCode::Cancelled);
    // What was asked for meanwhile is done afterwards.
    bus.goOn();
    QVERIFY(settings.flush().wait());
    QCOMPARE(service.calls.size(), 2001);
    // Calls that block would do so for good; on a busy machine a turn takes longer than its 5 ms.
    qInfo("longest call %lld us, longest turn %lld us", longestCallNs / 1000, longestTurnNs / 1000);
    QVERIFY(longestCallNs < 1'000'000'000);
    QVERIFY(longestTurnNs < 1'000'000'000);
}

void tst_RemoteSettings::destructionFailsWhatIsNotAnswered()
{
    ScriptedService service(m_bus.address());
    service.script = [&](sd_bus_message* call) {
        service.hold(call);
    };
    auto settings = std::make_unique<RemoteSettings>(m_bus.address());
    QVERIFY(waitForState(*settings, Settings::State::Ready));

    QVector<Reply<Change>> changes;
    for (int i = 0; i < 100; ++i)
        changes.append(settings->set(path, i));
    QVERIFY(waitUntil([&] { return !service.held.empty(); }));
    const auto refused = settings->set(path, QVariant());
    const auto first = settings->get(path, valueRole);
    const auto second = settings->get(path, valueRole);
    settings.reset();

    for (const Reply<Change>& change : qAsConst(changes))
        QCOMPARE(change.error().code, ErrorCode::Cancelled);
    QCOMPARE(refused.error().code, ErrorCode::Cancelled);
    QCOMPARE(first.error().code, ErrorCode::Cancelled);
    QCOMPARE(second.error().code, ErrorCode::Cancelled);
}

void tst_RemoteSettings::handlerMayDestroyTheSettings()
{
    ScriptedService service(m_bus.address());
    const auto destroyIn =
        [&](const std::function<void(RemoteSettings&, std::function<void()>)>& arrange) {
            auto settings = std::make_unique<RemoteSettings>(m_bus.address());
            arrange(*settings, [&settings] { settings.reset(); });
            return waitUntil([&] { return !settings; });
        };

    // In an answer, in one of many, in a change of state and in an event.
    QVERIFY(destroyIn([](RemoteSettings& settings, const std::function<void()>& destroy) {
        settings.get(path, valueRole).then(qApp, [destroy](const auto&) { destroy(); });
    }));
    Error cancelled;
    QVERIFY(destroyIn([&](RemoteSettings& settings, const std::function<void()>& destroy) {
        settings.get(path, valueRole).then(qApp, [destroy](const auto&) { destroy(); });
        settings.get(path, valueRole).then(qApp, [&](const auto& reply) {
            cancelled = reply.error();
        });
    }));
    QCOMPARE(cancelled.code, ErrorCode::Cancelled);
    QVERIFY(destroyIn([](RemoteSettings& settings, const std::function<void()>& destroy) {
        connect(&settings, &Settings::stateChanged, qApp, destroy);
    }));
    std::unique_ptr<Watch> watch;
    QVERIFY(destroyIn([&](RemoteSettings& settings, const std::function<void()>& destroy) {
        watch = settings.watch(path);
        connect(watch.get(), &Watch::changed, qApp, destroy);
        settings.get(path, valueRole).then(qApp, [&service](const auto&) {
            service.announce(wire::dataChanged, { path });
        });
    }));
}

void tst_RemoteSettings::handlerMayRunAnEventLoop()
{
    ScriptedService service(m_bus.address());
    RemoteSettings settings(m_bus.address());
    bool isInnerDone = false;
    bool isOuterDone = false;

    settings.get(path, valueRole).then(this, [&](const auto&) {
        isInnerDone = settings.set(path, true).wait() && settings.flush().wait();
        isOuterDone = true;
    });

    QVERIFY(waitUntil([&] { return isOuterDone; }));
    QVERIFY(isInnerDone);
}

// ---------------------------------------------------------------------------------------------
// Requests and answers.
// ---------------------------------------------------------------------------------------------

void tst_RemoteSettings::requestsReachTheService()
{
    ScriptedService service(m_bus.address());
    QStringList seen;
    service.script = [&](sd_bus_message* call) {
        const QVariantList arguments = ScriptedService::argumentsOf(call);
        QStringList words { QLatin1String(sd_bus_message_get_member(call)) };
        for (const QVariant& argument : arguments)
            words.append(shown(argument));
        seen.append(words.join(QLatin1Char(' ')));
        service.answerEmpty(call);
    };
    RemoteSettings settings(m_bus.address());
    ChangeOptions options;
    options.ifValue = qlonglong(1);
    options.ifTimestamp = 2;
    options.isDryRun = true;

    const auto many = settings.getMany({ path }, valueRole);
    const auto rows = settings.rows(path, 1, 2, valueRole);
    const auto explained = settings.explain(path);
    const auto changed = settings.set(path, 0.5, options);
    const auto roles = settings.setRoles(path, valueRoles(3));
    const auto applied = settings.apply(path, QStringLiteral("add"), 2);
    const auto toggled = settings.apply(path, QStringLiteral("toggle"), QVariant());
    const auto all = settings.setMany({ { path, true } });
    const auto flushed = settings.flush();
    const auto dropped = settings.dropCache();
    const auto unsaved = settings.unsavedPaths(-1);
    QVERIFY(unsaved.wait());

    const QString p = QStringLiteral("s \"%1\"").arg(path);
    const QStringList expected {
        QStringLiteral("GetMany as [%1] as [value]").arg(path),
        QStringLiteral("GetRows %1 i 1 i 2 as [value, type]").arg(p),
        QStringLiteral("Explain %1").arg(p),
        QStringLiteral("SetValue %1 d 0.5 {dry-run: b true, if-timestamp: x 2, if-value: x 1}")
            .arg(p),
        QStringLiteral("SetRoles %1 {value: x 3} {}").arg(p),
        QStringLiteral("Apply %1 s \"add\" av [x 2] {}").arg(p),
        QStringLiteral("Apply %1 s \"toggle\" av [] {}").arg(p),
        QStringLiteral("SetMany av [av [%1, {value: b true}]] {}").arg(p),
        QStringLiteral("Flush"),
        QStringLiteral("DropCache"),
        QStringLiteral("GetUnsaved u 0"),
    };
    QCOMPARE(seen, expected);
}

void tst_RemoteSettings::whatIsNotAValueIsTheServicesToReject()
{
    ScriptedService service(m_bus.address());
    QVector<QVariantList> seen;
    service.script = [&](sd_bus_message* call) {
        seen.append(ScriptedService::argumentsOf(call));
        service.answerEmpty(call);
    };
    RemoteSettings settings(m_bus.address());
    const QVariant bytes = QByteArray("a");
    ChangeOptions options;
    options.ifValue = bytes;

    QVERIFY(settings.set(path, bytes, options).wait());
    QVERIFY(settings.set(path, QVariant()).wait());
    QVERIFY(settings.setRoles(path, { { QStringLiteral("value"), bytes } }).wait());
    QVERIFY(settings.apply(path, QStringLiteral("add"), bytes).wait());
    QVERIFY(settings.setMany({ { path, bytes } }).wait());

    // Nor is an empty map a value.
    const QVariantMap none;
    const QVariantMap value { { QStringLiteral("value"), none } };
    const QVector<QVariantList> expected {
        { path, none, QVariantMap { { QStringLiteral("if-value"), none } } },
        { path, none, none },
        { path, value, none },
        { path, QStringLiteral("add"), QVariant(QVariantList { none }), none },
        { QVariant(QVariantList { QVariant(QVariantList { path, value }) }), none },
    };
    QCOMPARE(seen, expected);
}

void tst_RemoteSettings::answersReachTheProgram()
{
    ScriptedService service(m_bus.address());
    Change change;
    change.stored = valueRoles(100);
    change.isAdjusted = true;
    change.asked = qlonglong(150);
    change.reason = QStringLiteral("maximum 100");
    Rows page;
    page.count = 5;
    page.version = 2;
    page.rows.append({ QStringLiteral("audio"), true, { { QStringLiteral("type"), 1 } }, {} });
    page.rows.append({ QStringLiteral("volume"), false, { { QStringLiteral("type"), 101 } }, {} });
    Status status;
    status.version = QStringLiteral("1.2");
    status.unsavedCount = 3;
    service.script = [&](sd_bus_message* call) {
        const QByteArray member = sd_bus_message_get_member(call);
        if (member == "GetRows")
            service.answer(call, wire::rowsToArguments(page));
        else if (member == "SetValue")
            service.answer(call, wire::changeToArguments(change));
        else if (member == "SetMany")
            service.answer(call, wire::changesToArguments({ change, {} }));
        else if (member == "GetAll")
            service.answer(call, { wire::statusToProperties(status) });
        else if (member == "GetUnsaved")
            service.answer(call, { QStringList(path) });
        else if (member == "Flush")
            service.answer(call, { 4U });
        else
            service.answer(call, { valueRoles(5) });
    };
    RemoteSettings settings(m_bus.address());

    const auto read = settings.get(path, valueRole);
    const auto rows = settings.rows(QStringLiteral("/settings"), 0, 9, {});
    const auto typed = settings.rows(QStringLiteral("/settings"), 0, 9, { QStringLiteral("type") });
    const auto changed = settings.set(path, 150);
    const auto all = settings.setMany({ { path, 150 }, { path, 5 } });
    const auto flushed = settings.flush();
    const auto unsaved = settings.unsavedPaths(7);
    const auto whole = settings.status();
    QVERIFY(whole.wait());

    QCOMPARE(read.value(), valueRoles(5));
    QCOMPARE(rows.value().count, 5);
    QCOMPARE(rows.value().version, 2);
    QCOMPARE(rows.value().rows.size(), 2);
    QVERIFY(rows.value().rows.at(0).isDirectory);
    QVERIFY(!rows.value().rows.at(1).isDirectory);
    // Asked for by the library itself.
    QCOMPARE(rows.value().rows.at(0).roles, QVariantMap());
    QCOMPARE(typed.value().rows.at(1).roles.value(QStringLiteral("type")).toInt(), 101);
    QCOMPARE(changed.value().stored, change.stored);
    QVERIFY(changed.value().isAdjusted);
    QCOMPARE(changed.value().asked, change.asked);
    QCOMPARE(changed.value().reason, change.reason);
    QCOMPARE(all.value().size(), 2);
    QVERIFY(all.value().at(0).isAdjusted);
    QVERIFY(!all.value().at(1).isAdjusted);
    QCOMPARE(flushed.value(), 4);
    QCOMPARE(unsaved.value(), QStringList(path));
    QCOMPARE(whole.value().version, QStringLiteral("1.2"));
    QCOMPARE(whole.value().unsavedCount, 3);
    QCOMPARE(whole.value().processId, qint64(::getpid()));
}

namespace {

using Request = std::function<Error(RemoteSettings&)>;
using Answer = std::function<void(ScriptedService&, sd_bus_message*)>;

template<typename T>
Error errorOf(const Reply<T>& reply)
{
    reply.wait();
    return reply.error();
}

const Request getOne = [](RemoteSettings& settings) {
    return errorOf(settings.get(path, valueRole));
};
const Request getMany = [](RemoteSettings& settings) {
    return errorOf(settings.getMany({ path, path }, valueRole));
};
const Request getTogether = [](RemoteSettings& settings) {
    const auto first = settings.get(path, valueRole);
    return errorOf(settings.get(path, valueRole));
};
const Request getRows = [](RemoteSettings& settings) {
    return errorOf(settings.rows(path, 0, 1, {}));
};
const Request explain = [](RemoteSettings& settings) {
    return errorOf(settings.explain(path));
};
const Request setValue = [](RemoteSettings& settings) {
    return errorOf(settings.set(path, true));
};
const Request setMany = [](RemoteSettings& settings) {
    return errorOf(settings.setMany({ { path, true } }));
};
const Request getStatus = [](RemoteSettings& settings) {
    return errorOf(settings.status());
};

} // namespace

Q_DECLARE_METATYPE(Request)
Q_DECLARE_METATYPE(Answer)
Q_DECLARE_METATYPE(tulo::ErrorCode)

void tst_RemoteSettings::malformedAnswersAreErrors_data()
{
    QTest::addColumn<Request>("request");
    QTest::addColumn<Answer>("answer");
    const auto row = [](const char* name, const Request& request, const char* signature,
                        const QVariantList& arguments) {
        const Answer answer = [=](ScriptedService& service, sd_bus_message* call) {
            service.answerAs(call, signature, arguments);
        };
        QTest::newRow(name) << request << answer;
    };
    const QVariantMap none;
    const auto node = [&none](const QString& name) {
        return QVariant(QVariantList { name, none });
    };
    const auto nodes = [](const QVariantList& list) {
        return QVariantList { QVariant(list) };
    };

    row("nothing", getOne, "", {});
    row("another type", getOne, "s", { path });
    row("too much", getOne, "a{sv}s", { none, path });
    row("no nodes", getMany, wire::getMany.out, nodes({}));
    row("no nodes for several", getTogether, wire::getMany.out, nodes({}));
    row("nodes of another type", getMany, "as", { QStringList(path) });
    row("too many nodes", getMany, wire::getMany.out,
        nodes({ node(path), node(path), node(path) }));
    row("nodes of another path", getMany, wire::getMany.out,
        nodes({ node(path), node(QStringLiteral("/settings/x")) }));
    row("more rows than counted", getRows, wire::getRows.out,
        { 0U, 0, none, QVariant(QVariantList { node(QStringLiteral("a")) }) });
    row("rows of another type", getRows, "i", { 5 });
    row("origins of another type", explain, "as", { QStringList(path) });
    row("origin without a layer", explain, wire::explain.out, nodes({ node(path) }));
    row("origin of another layer", explain, wire::explain.out,
        nodes({ QVariant(QVariantList {
            path,
            QVariantMap { { QStringLiteral("layer"), QStringLiteral("attic") },
                          { QStringLiteral("state"), QStringLiteral("hidden") } } }) }));
    row("outcome of another type", setValue, wire::setValue.out,
        { none, QVariantMap { { QStringLiteral("adjusted"), QStringLiteral("yes") } } });
    row("no outcome", setValue, "a{sv}", { none });
    row("outcomes of another type", setMany, wire::setMany.out,
        nodes({ QVariant(QVariantList {
            none, QVariantMap { { QStringLiteral("adjusted"), QStringLiteral("yes") } } }) }));
    row("fewer changes", setMany, wire::setMany.out, nodes({}));
    row("no properties", getStatus, "a{sv}", { none });
    QTest::newRow("value that is not a number")
        << getOne << Answer([](ScriptedService& service, sd_bus_message* call) {
               service.answerWith(call, [](sd_bus_message* reply) {
                   return sd_bus_message_append(reply, "a{sv}", 1, "value", "d", qQNaN());
               });
           });
}

void tst_RemoteSettings::malformedAnswersAreErrors()
{
    QFETCH(const Request, request);
    QFETCH(const Answer, answer);
    ScriptedService service(m_bus.address());
    service.script = [&](sd_bus_message* call) {
        answer(service, call);
    };
    RemoteSettings settings(m_bus.address());

    const Error error = request(settings);

    QCOMPARE(error.code, ErrorCode::Internal);
    QCOMPARE(error.message, QStringLiteral("malformed answer from the service"));
}

void tst_RemoteSettings::errorsKeepTheirCode_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<ErrorCode>("code");
    QTest::addColumn<QString>("message");
    const auto row = [](const char* name, ErrorCode code, const QString& message) {
        QTest::newRow(name) << QByteArray(name) << code << message;
    };

    for (int code = int(ErrorCode::InvalidPath); code <= int(ErrorCode::Internal); ++code) {
        const QByteArray name = wire::errorName(ErrorCode(code)).toUtf8();
        row(name.constData(), ErrorCode(code), QStringLiteral("so it is"));
    }
    row("org.tulo.ConfigurationManager1.Error.New", ErrorCode::Internal,
        QStringLiteral("so it is"));
    row("org.freedesktop.DBus.Error.ServiceUnknown", ErrorCode::Unavailable,
        QStringLiteral("no service on the bus '%1'").arg(m_bus.address()));
    row("org.freedesktop.DBus.Error.AccessDenied", ErrorCode::Unavailable,
        QStringLiteral("the bus does not permit it: so it is; members of the group 'tulo-read' "
                       "may read, those of 'tulo' also change"));
    row("org.freedesktop.DBus.Error.NoReply", ErrorCode::Unavailable,
        QStringLiteral("the service gave no answer: so it is"));
    row("org.freedesktop.DBus.Error.Spawn.ChildExited", ErrorCode::Unavailable,
        QStringLiteral("the service cannot be started: so it is"));
    row("org.freedesktop.systemd1.UnitMasked", ErrorCode::Unavailable,
        QStringLiteral("the service cannot be started: so it is"));
    row("org.freedesktop.DBus.Error.LimitsExceeded", ErrorCode::Limits,
        QStringLiteral("the bus refuses it: so it is"));
    row("org.freedesktop.DBus.Error.UnknownMethod", ErrorCode::Internal,
        QStringLiteral("org.freedesktop.DBus.Error.UnknownMethod: so it is"));
}

void tst_RemoteSettings::errorsKeepTheirCode()
{
    QFETCH(const QByteArray, name);
    QFETCH(const ErrorCode, code);
    QFETCH(const QString, message);
    ScriptedService service(m_bus.address());
    service.script = [&](sd_bus_message* call) {
        service.fail(call, name.constData(), "so it is");
    };
    RemoteSettings settings(m_bus.address());

    const Error expected { code, message, path };
    QCOMPARE(getOne(settings), expected);
    QCOMPARE(getTogether(settings), expected);
    QCOMPARE(setValue(settings), expected);
    QCOMPARE(getStatus(settings), (Error { code, message, QString() }));
}

void tst_RemoteSettings::errorOfManyNamesItsPath()
{
    ScriptedService service(m_bus.address());
    service.script = [&](sd_bus_message* call) {
        service.fail(call, "org.tulo.ConfigurationManager1.Error.Rejected",
                     "Setting '/settings/a%20b' cannot have it");
    };
    RemoteSettings settings(m_bus.address());

    const Error error = errorOf(settings.setMany(
        { { QStringLiteral("/settings/a"), true }, { QStringLiteral("/settings/a b"), true } }));

    QCOMPARE(
        error,
        (Error { ErrorCode::Rejected, QStringLiteral("Setting '/settings/a%20b' cannot have it"),
                 QStringLiteral("/settings/a b") }));
}

void tst_RemoteSettings::lateAnswersAreIgnored()
{
    ScriptedService service(m_bus.address());
    service.script = [&](sd_bus_message* call) {
        if (sd_bus_message_is_method_call(call, nullptr, "GetData") > 0)
            service.hold(call);
        else
            service.answerEmpty(call);
    };
    RemoteSettings settings(m_bus.address());
    const auto reply = settings.get(path, valueRole);
    QVERIFY(waitUntil([&] { return service.held.size() == 1; }));

    reply.cancel();
    service.answer(service.held.front().get(), { valueRoles(5) });
    // A second answer to the same call, which the bus does not even pass on.
    service.answer(service.held.front().get(), { valueRoles(6) });
    QVERIFY(settle(settings));

    QCOMPARE(reply.error().code, ErrorCode::Cancelled);
    QCOMPARE(reply.value(), QVariantMap());
}

void tst_RemoteSettings::silentServiceHoldsNobodyUp()
{
    ScriptedService service(m_bus.address());
    service.script = [&](sd_bus_message* call) {
        if (sd_bus_message_is_method_call(call, nullptr, "SetValue") > 0)
            service.hold(call);
        else
            service.answerEmpty(call);
    };
    RemoteSettings settings(m_bus.address());

    const auto silent = settings.set(path, true);
    QVERIFY(settings.get(path, valueRole).wait());
    QVERIFY(settings.flush().wait());

    QVERIFY(!silent.isFinished());
    silent.cancel();
    QCOMPARE(silent.error().code, ErrorCode::Cancelled);
}

void tst_RemoteSettings::clientWithoutRightsIsTold()
{
    const PrivateBus bus(PrivateBus::openPolicy() + R"(<policy context="mandatory">
  <deny send_destination="org.tulo.ConfigurationManager1"
        send_interface="org.tulo.ConfigurationManager1.Change"/>
</policy>
)");
    ScriptedService service(bus.address());
    RemoteSettings settings(bus.address());

    QVERIFY(settings.get(path, valueRole).wait());
    const Error error = setValue(settings);

    QCOMPARE(error.code, ErrorCode::Unavailable);
    QCOMPARE(error.path, path);
    QVERIFY2(error.message.startsWith(QLatin1String("the bus does not permit it: ")),
             qPrintable(error.message));
    QCOMPARE(settings.state(), Settings::State::Ready);
}

void tst_RemoteSettings::requestsThatCannotBeCarriedAreErrors()
{
    ScriptedService service(m_bus.address());
    RemoteSettings settings(m_bus.address());
    const QString bad { QChar(0) };

    QCOMPARE(errorOf(settings.get(bad, valueRole)).code, ErrorCode::Refused);
    QCOMPARE(errorOf(settings.get(path, { bad })).code, ErrorCode::Refused);
    QCOMPARE(errorOf(settings.getMany({ path, bad }, valueRole)).code, ErrorCode::Refused);
    QCOMPARE(errorOf(settings.rows(bad, 0, 1, {})).code, ErrorCode::Refused);
    QCOMPARE(errorOf(settings.explain(bad)).code, ErrorCode::Refused);
    QCOMPARE(errorOf(settings.set(bad, true)).code, ErrorCode::Refused);
    QCOMPARE(errorOf(settings.setRoles(path, { { bad, true } })).code, ErrorCode::Refused);
    QCOMPARE(errorOf(settings.apply(path, bad, 1)).code, ErrorCode::Refused);
    const Error error = errorOf(settings.setMany({ { path, 1 }, { path + bad, 1 } }));
    QCOMPARE(error.code, ErrorCode::Refused);
    QCOMPARE(error.path, path + bad);
    const Announcements watched(settings.watch(bad));
    QVERIFY(waitUntil([&] { return !watched.log.isEmpty(); }));
    QCOMPARE(watched.log, QStringList(QStringLiteral("failed Refused")));

    QCOMPARE(service.calls, QStringList());
    QVERIFY(settings.get(path, valueRole).wait());
}

void tst_RemoteSettings::hugeRequestsAreRefused()
{
    ScriptedService service(m_bus.address());
    RemoteSettings settings(m_bus.address());

    const Error error = errorOf(settings.set(path, QString(17 * 1024 * 1024, QLatin1Char('a'))));

    QCOMPARE(error.code, ErrorCode::Limits);
    QCOMPARE(error.path, path);
    QCOMPARE(service.calls, QStringList());
    // The connection is as before.
    QVERIFY(settings.get(path, valueRole).wait());
    QCOMPARE(settings.state(), Settings::State::Ready);
}

void tst_RemoteSettings::onlySoManyCallsAreUnderWay()
{
    ScriptedService service(m_bus.address());
    std::size_t most = 0;
    service.script = [&](sd_bus_message* call) {
        service.hold(call);
        most = std::max(most, service.held.size());
        // One at a time, as soon as nothing more comes.
        QTimer::singleShot(0, &service, [&service] {
            if (service.held.empty())
                return;
            service.answerEmpty(service.held.front().get());
            service.held.erase(service.held.begin());
        });
    };
    RemoteSettings settings(m_bus.address());

    QVector<Reply<Change>> changes;
    for (int i = 0; i < 1000; ++i)
        changes.append(settings.set(path, i));
    QVERIFY(changes.last().wait());

    for (const Reply<Change>& change : qAsConst(changes)) {
        QVERIFY(change.isFinished());
        QVERIFY(!change.error());
    }
    QVERIFY2(most <= 32, qPrintable(QString::number(most)));
}

// ---------------------------------------------------------------------------------------------
// Many paths.
// ---------------------------------------------------------------------------------------------

void tst_RemoteSettings::getsOfOneTurnGoTogether()
{
    ScriptedService service(m_bus.address());
    service.script = [&](sd_bus_message* call) {
        if (sd_bus_message_is_method_call(call, nullptr, "GetData") > 0) {
            service.answer(call, { valueRoles(9) });
            return;
        }
        QVector<Node> nodes;
        const QStringList paths = ScriptedService::argumentsOf(call).value(0).toStringList();
        for (const QString& asked : paths)
            nodes.append({ asked, valueRoles(asked.rightRef(1).toInt()), {} });
        service.answer(call, wire::nodesToArguments(nodes));
    };
    RemoteSettings settings(m_bus.address());

    const auto first = settings.get(QStringLiteral("/settings/1"), valueRole);
    const auto second = settings.get(QStringLiteral("/settings/2"), valueRole);
    QVERIFY(second.wait());
    QVERIFY(first.isFinished());
    const auto third = settings.get(QStringLiteral("/settings/3"), valueRole);
    QVERIFY(third.wait());

    QCOMPARE(first.value(), valueRoles(1));
    QCOMPARE(second.value(), valueRoles(2));
    QCOMPARE(third.value(), valueRoles(9));
    QCOMPARE(service.calls,
             QStringList({ QStringLiteral("GetMany /settings/1 /settings/2"),
                           QStringLiteral("GetData /settings/3") }));
}

void tst_RemoteSettings::getsOfDifferentRolesGoApart()
{
    ScriptedService service(m_bus.address());
    RemoteSettings settings(m_bus.address());

    const auto first = settings.get(QStringLiteral("/settings/1"), valueRole);
    const auto second = settings.get(QStringLiteral("/settings/2"), {});
    const auto third = settings.get(QStringLiteral("/settings/3"), valueRole);
    QVERIFY(second.wait());

    QCOMPARE(service.calls,
             QStringList({ QStringLiteral("GetMany /settings/1 /settings/3"),
                           QStringLiteral("GetData /settings/2") }));
}

void tst_RemoteSettings::eachGetHasItsOwnError()
{
    ScriptedService service(m_bus.address());
    const QString missing = QStringLiteral("/settings/missing");
    const Error error { ErrorCode::InvalidPath, QStringLiteral("no such path"), missing };
    service.script = [&](sd_bus_message* call) {
        service.answer(
            call, wire::nodesToArguments({ { path, valueRoles(5), {} }, { missing, {}, error } }));
    };
    RemoteSettings settings(m_bus.address());

    const auto there = settings.get(path, valueRole);
    const auto absent = settings.get(missing, valueRole);
    QVERIFY(!absent.wait());

    QCOMPARE(there.value(), valueRoles(5));
    QCOMPARE(absent.error(), error);
}

void tst_RemoteSettings::pathsThatDidNotFitAreAskedForAgain()
{
    ScriptedService service(m_bus.address());
    service.script = [&](sd_bus_message* call) {
        const QStringList paths = ScriptedService::argumentsOf(call).value(0).toStringList();
        QVector<Node> nodes;
        for (int i = 0; i < std::min(2, paths.size()); ++i)
            nodes.append({ paths.at(i), valueRoles(paths.at(i).rightRef(1).toInt()), {} });
        service.answer(call, wire::nodesToArguments(nodes));
    };
    RemoteSettings settings(m_bus.address());
    QStringList paths;
    QVector<Reply<QVariantMap>> replies;
    for (int i = 0; i < 5; ++i)
        paths.append(QStringLiteral("/settings/%1").arg(i));

    for (const QString& asked : qAsConst(paths))
        replies.append(settings.get(asked, valueRole));
    const auto many = settings.getMany(paths, {});
    QVERIFY(many.wait());

    QVERIFY(waitUntil([&] { return replies.last().isFinished(); }));
    QCOMPARE(many.value().size(), 5);
    for (int i = 0; i < 5; ++i) {
        QCOMPARE(replies.at(i).value(), valueRoles(i));
        QCOMPARE(many.value().at(i).path, paths.at(i));
        QCOMPARE(many.value().at(i).roles, valueRoles(i));
    }
    QCOMPARE(service.calls.size(), 6);
}

void tst_RemoteSettings::thousandsOfGetsAreSplit()
{
    ScriptedService service(m_bus.address());
    QVector<int> sizes;
    service.script = [&](sd_bus_message* call) {
        sizes.append(ScriptedService::argumentsOf(call).value(0).toStringList().size());
        service.answerEmpty(call);
    };
    RemoteSettings settings(m_bus.address());
    QVector<Reply<QVariantMap>> replies;

    for (int i = 0; i < 2500; ++i)
        replies.append(settings.get(QStringLiteral("/settings/%1").arg(i), valueRole));
    QVERIFY(waitUntil([&] {
        return std::all_of(replies.cbegin(), replies.cend(),
                           [](const auto& reply) { return reply.isFinished(); });
    }));

    QCOMPARE(sizes, QVector<int>({ 1000, 1000, 500 }));
    for (const auto& reply : qAsConst(replies))
        QVERIFY(!reply.error());
}

void tst_RemoteSettings::requestsKeepTheirOrder()
{
    ScriptedService service(m_bus.address());
    RemoteSettings settings(m_bus.address());

    const auto before = settings.get(path, valueRole);
    const auto changed = settings.set(path, true);
    const auto after = settings.get(path, valueRole);
    QVERIFY(after.wait());

    QCOMPARE(service.calls,
             QStringList({ QStringLiteral("GetData ") + path, QStringLiteral("SetValue ") + path,
                           QStringLiteral("GetData ") + path }));
}

void tst_RemoteSettings::restOfPathsIsReadBeforeAChange()
{
    ScriptedService service(m_bus.address());
    service.script = [&](sd_bus_message* call) {
        if (sd_bus_message_is_method_call(call, nullptr, "GetMany") <= 0) {
            service.answerEmpty(call);
            return;
        }
        const QStringList paths = ScriptedService::argumentsOf(call).value(0).toStringList();
        service.answer(call, wire::nodesToArguments({ { paths.first(), valueRoles(1), {} } }));
    };
    RemoteSettings settings(m_bus.address());

    const auto many =
        settings.getMany({ QStringLiteral("/settings/1"), QStringLiteral("/settings/2") }, {});
    const auto changed = settings.set(QStringLiteral("/settings/2"), true);
    QVERIFY(changed.wait());

    QCOMPARE(service.calls,
             QStringList({ QStringLiteral("GetMany /settings/1 /settings/2"),
                           QStringLiteral("GetMany /settings/2"),
                           QStringLiteral("SetValue /settings/2") }));
}

// ---------------------------------------------------------------------------------------------
// Events.
// ---------------------------------------------------------------------------------------------

void tst_RemoteSettings::watchesSeeTheirEvents()
{
    ScriptedService service(m_bus.address());
    RemoteSettings settings(m_bus.address());
    const QString directory = QStringLiteral("/settings/audio");
    const Announcements node(settings.watch(path));
    const Announcements tree(settings.watchTree(directory));
    const Announcements other(settings.watch(QStringLiteral("/settings/other")));
    QVERIFY(settle(settings));

    service.announce(wire::valueChanged, { path, 0.5 });
    service.announce(wire::dataChanged, { path });
    service.announce(wire::rowsChanged, { directory, QStringLiteral("+2"), 4 });
    service.announce(wire::dataChanged, { QStringLiteral("/settings/audiobook") });
    service.announce(wire::dataChanged, { QStringLiteral("/settings") });
    QVERIFY(settle(settings));

    QCOMPARE(node.log, QStringList({ QStringLiteral("value 0.5"), QStringLiteral("data") }));
    QCOMPARE(tree.log,
             QStringList({ QStringLiteral("value 0.5"), QStringLiteral("data"),
                           QStringLiteral("rows +2 4") }));
    QCOMPARE(other.log, QStringList());
}

void tst_RemoteSettings::eventsComeBeforeTheAnswer()
{
    ScriptedService service(m_bus.address());
    service.script = [&](sd_bus_message* call) {
        for (int i = 0; i < 500; ++i)
            service.announce(wire::dataChanged, { path });
        service.answerEmpty(call);
        service.announce(wire::dataChanged, { path });
    };
    RemoteSettings settings(m_bus.address());
    const Announcements watched(settings.watch(path));
    int before = -1;

    settings.set(path, true).then(this, [&](const auto&) { before = watched.log.size(); });

    QVERIFY(waitUntil([&] { return watched.log.size() == 501; }));
    QCOMPARE(before, 500);
}

void tst_RemoteSettings::forgedSignalsAreIgnored()
{
    ScriptedService service(m_bus.address());
    const SenderRecorder client(service);
    ScriptedService forger(m_bus.address(), ScriptedService::Name::None);
    RemoteSettings settings(m_bus.address());
    QSignalSpy states(&settings, &Settings::stateChanged);
    const Announcements watched(settings.watch(path));
    QVERIFY(settle(settings));
    QVERIFY(!client.name.isEmpty());

    forger.announce(wire::valueChanged, { path, qlonglong(1) });
    forger.announce(wire::valueChanged, { path, qlonglong(2) }, client.name);
    static constexpr wire::Signal ownerChanged { "org.freedesktop.DBus", "NameOwnerChanged", "sss",
                                                 "" };
    forger.announce(ownerChanged,
                    { QLatin1String(wire::busName), QString::fromUtf8(service.uniqueName()),
                      QString::fromUtf8(forger.uniqueName()) },
                    client.name);
    service.announce(wire::valueChanged, { path, qlonglong(3) });
    QVERIFY(settle(settings));

    QCOMPARE(watched.log, QStringList(QStringLiteral("value 3")));
    QCOMPARE(states.size(), 1);
    QCOMPARE(settings.state(), Settings::State::Ready);
}

void tst_RemoteSettings::malformedSignalsAreIgnored()
{
    ScriptedService service(m_bus.address());
    RemoteSettings settings(m_bus.address());
    const Announcements watched(settings.watch(path));
    QVERIFY(settle(settings));

    const auto announceAs = [&](const char* member, const char* signature,
                                const QVariantList& arguments) {
        const wire::Signal signal { wire::readInterface, member, signature, "" };
        service.announce(signal, arguments);
    };
    announceAs("ValueChanged", "ss", { path, path });
    announceAs("ValueChanged", "s", { path });
    announceAs("RowsChanged", "s", { path });
    announceAs("Renamed", "s", { path });
    announceAs("DataChanged", "s", { path });
    QVERIFY(settle(settings));

    QCOMPARE(watched.log, QStringList(QStringLiteral("data")));
}

void tst_RemoteSettings::fewWatchesHaveTheirOwnRules()
{
    ScriptedService service(m_bus.address());
    const SenderRecorder client(service);
    RemoteSettings settings(m_bus.address());
    const auto node = settings.watch(path);
    auto again = settings.watch(path);
    auto tree = settings.watchTree(QStringLiteral("/settings/audio"));
    QVERIFY(settle(settings));

    const auto about = [&](const char* what) {
        const QStringList rules = service.rulesOf(client.name);
        return std::count_if(rules.cbegin(), rules.cend(), [what](const QString& rule) {
            return rule.contains(QLatin1String(what));
        });
    };
    QCOMPARE(service.rulesOf(client.name).size(), 4);
    QCOMPARE(about("arg0='/settings/audio/volume'"), 1);
    QCOMPARE(about("arg0='/settings/audio'"), 1);
    QCOMPARE(about("arg0path='/settings/audio/'"), 1);
    QCOMPARE(about("NameOwnerChanged"), 1);

    again.reset();
    tree.reset();
    QVERIFY(settle(settings));
    QCOMPARE(service.rulesOf(client.name).size(), 2);
    QCOMPARE(about("arg0='/settings/audio/volume'"), 1);
}

void tst_RemoteSettings::manyWatchesShareOneRule()
{
    // A bus with the limits of a system bus but for the rules, of which it takes fewer.
    const PrivateBus bus(PrivateBus::openPolicy()
                         + "<limit name=\"max_match_rules_per_connection\">16</limit>\n");
    ScriptedService service(bus.address());
    const SenderRecorder client(service);
    RemoteSettings settings(bus.address());
    std::vector<std::unique_ptr<Announcements>> watches;

    // One after the other, so that the rules change on the way.
    for (int i = 0; i < 2000; ++i) {
        watches.push_back(
            std::make_unique<Announcements>(settings.watch(QStringLiteral("/settings/%1").arg(i))));
        if (i < 20)
            QVERIFY(settle(settings));
    }
    QVERIFY(settle(settings));
    QCOMPARE(service.rulesOf(client.name).size(), 2);
    for (int i = 0; i < 2000; ++i)
        service.announce(wire::valueChanged, { QStringLiteral("/settings/%1").arg(i), i });
    QVERIFY(settle(settings));
    for (int i = 0; i < 2000; ++i)
        QCOMPARE(watches.at(i)->log, QStringList(QStringLiteral("value %1").arg(i)));

    watches.resize(2);
    QVERIFY(settle(settings));
    QCOMPARE(service.rulesOf(client.name).size(), 3);
    service.announce(wire::valueChanged, { QStringLiteral("/settings/1"), qlonglong(7) });
    QVERIFY(settle(settings));
    QCOMPARE(watches.at(1)->log.last(), QStringLiteral("value 7"));
}

void tst_RemoteSettings::watchesOfOddPathsAreServed_data()
{
    QTest::addColumn<QString>("odd");

    QTest::newRow("apostrophe") << QStringLiteral("/settings/it's");
    QTest::newRow("apostrophes") << QStringLiteral("/settings/'',arg1='x'");
    QTest::newRow("backslash") << QStringLiteral("/settings/a\\'b");
    QTest::newRow("comma") << QStringLiteral("/settings/a,b=c");
    QTest::newRow("letters") << QStringLiteral("/settings/gr\u00fc\u00df dich");
    QTest::newRow("long") << QLatin1String("/settings/") + QString(180, QLatin1Char('x'))
            + QLatin1Char('/') + QString(180, QLatin1Char('y')) + QLatin1Char('/')
            + QString(180, QLatin1Char('z')) + QLatin1Char('/') + QString(190, QLatin1Char('x'))
            + QLatin1Char('/') + QString(190, QLatin1Char('y'));
    QTest::newRow("relative") << QStringLiteral("settings/audio");
}

void tst_RemoteSettings::watchesOfOddPathsAreServed()
{
    QFETCH(const QString, odd);
    ScriptedService service(m_bus.address());
    RemoteSettings settings(m_bus.address());
    const Announcements node(settings.watch(odd));
    const Announcements tree(settings.watchTree(odd));
    QVERIFY(settle(settings));

    const QString full = odd.startsWith(QLatin1Char('/')) ? odd : QLatin1Char('/') + odd;
    service.announce(wire::dataChanged, { full });
    service.announce(wire::dataChanged, { full + QStringLiteral("/below") });
    QVERIFY(settle(settings));

    QCOMPARE(node.log, QStringList(QStringLiteral("data")));
    QCOMPARE(tree.log, QStringList({ QStringLiteral("data"), QStringLiteral("data") }));
}

void tst_RemoteSettings::refusedRuleFailsTheWatch()
{
    const PrivateBus bus(PrivateBus::openPolicy()
                         + "<limit name=\"max_match_rules_per_connection\">2</limit>\n");
    ScriptedService service(bus.address());
    RemoteSettings settings(bus.address());

    const Announcements first(settings.watch(path));
    QVERIFY(settle(settings));
    const Announcements second(settings.watch(QStringLiteral("/settings/b")));
    QVERIFY(waitUntil([&] { return !second.log.isEmpty(); }));

    QCOMPARE(second.log, QStringList(QStringLiteral("failed Limits")));
    QCOMPARE(first.log, QStringList());
    service.announce(wire::dataChanged, { path });
    QVERIFY(settle(settings));
    QCOMPARE(first.log, QStringList(QStringLiteral("data")));
}

void tst_RemoteSettings::watchIsThereBeforeTheNextRequest()
{
    ScriptedService service(m_bus.address());
    service.script = [&](sd_bus_message* call) {
        service.answerEmpty(call);
        service.announce(wire::dataChanged, { path });
    };
    RemoteSettings settings(m_bus.address());
    const Announcements early(settings.watch(path));
    const auto first = settings.get(path, valueRole);
    QVERIFY(waitUntil([&] { return early.log.size() == 1; }));

    const Announcements tree(settings.watchTree(QStringLiteral("/settings")));
    QVERIFY(settings.flush().wait());

    QVERIFY(waitUntil([&] { return tree.log.size() == 1; }));
    QCOMPARE(early.log.size(), 2);
}

// ---------------------------------------------------------------------------------------------
// Other machines.
// ---------------------------------------------------------------------------------------------

void tst_RemoteSettings::hostsBecomeAddresses_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<QString>("escaped");

    QTest::newRow("name") << QStringLiteral("device") << QStringLiteral("device");
    QTest::newRow("user") << QStringLiteral("root@device.local")
                          << QStringLiteral("root%40device.local");
    QTest::newRow("IPv6") << QStringLiteral("root@[fe80::1%eth0]")
                          << QStringLiteral("root%40%5Bfe80%3A%3A1%25eth0%5D");
    QTest::newRow("separators") << QStringLiteral("a,argv1=b;c:d")
                                << QStringLiteral("a%2Cargv1%3Db%3Bc%3Ad");
    QTest::newRow("empty") << QString() << QString();
    QTest::newRow("option") << QStringLiteral("-oProxyCommand=x") << QString();
    QTest::newRow("blank") << QStringLiteral("a b") << QString();
    QTest::newRow("line") << QStringLiteral("a\nb") << QString();
    QTest::newRow("zero") << QString(QChar(0)) << QString();
}

void tst_RemoteSettings::hostsBecomeAddresses()
{
    QFETCH(const QString, host);
    QFETCH(const QString, escaped);
    Error error { ErrorCode::Internal, QString(), QString() };

    const QString address = RemoteSettings::addressOfHost(host, &error);

    if (escaped.isEmpty()) {
        QCOMPARE(error.code, ErrorCode::Refused);
        QCOMPARE(address, QString());
        return;
    }
    QVERIFY(!error);
    QCOMPARE(address,
             QStringLiteral("unixexec:path=setsid,argv1=ssh,argv2=-xT,argv3=--,argv4=%1,"
                            "argv5=systemd-stdio-bridge")
                 .arg(escaped));
}

void tst_RemoteSettings::hostIsReachedThroughSsh()
{
    // In the place of ssh: a program that says how it was called and reaches the private bus.
    const QTemporaryDir directory;
    const QString log = directory.filePath(QStringLiteral("log"));
    QFile ssh(directory.filePath(QStringLiteral("ssh")));
    QVERIFY(ssh.open(QIODevice::WriteOnly));
    ssh.write("#!/bin/sh\nps -o pid=,sid= -p $$ >'" + QFile::encodeName(log) + "'\necho \"$@\" >>'"
              + QFile::encodeName(log) + "'\nexec systemd-stdio-bridge -p '"
              + m_bus.address().toUtf8() + "'\n");
    ssh.close();
    QVERIFY(ssh.setPermissions(QFile::Permissions(0x7755)));
    const QByteArray searched = qgetenv("PATH");
    qputenv("PATH", QFile::encodeName(directory.path()) + ':' + searched);
    ScriptedService service(m_bus.address());
    Error error;

    auto settings = std::make_unique<RemoteSettings>(
        RemoteSettings::addressOfHost(QStringLiteral("root@device:1"), &error));
    const bool isServed = settings->get(path, valueRole).wait();
    settings.reset();

    qputenv("PATH", searched);
    QVERIFY(isServed);
    QFile file(log);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    const QStringList numbers = lines.value(0).simplified().split(QLatin1Char(' '));
    QCOMPARE(lines.value(1), QStringLiteral("-xT -- root@device:1 systemd-stdio-bridge"));
    // It leads a session, and has ended.
    QCOMPARE(numbers.value(0), numbers.value(1));
    QCOMPARE(::kill(numbers.value(0).toInt(), 0), -1);
}

QTEST_GUILESS_MAIN(tst_RemoteSettings)
#include "tst_remote_settings.moc"
