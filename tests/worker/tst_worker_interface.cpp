// What the worker's class looks like from outside: signatures, members, virtual slots and the
// meta-object. The framework and its tools rely on each.

#include "workerfixture.h"

#include <QMetaMethod>

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

// ---------------------------------------------------------------------------------------------
// Signatures. What does not compile fails.
// ---------------------------------------------------------------------------------------------

namespace {

using W = CMSettingsWorker;

static_assert(std::is_base_of_v<CMWorker, W>);
static_assert(std::is_base_of_v<CMAbstractWorker, CMWorker>);
static_assert(std::is_base_of_v<QObject, CMAbstractWorker>);
static_assert(std::is_base_of_v<EncryptionHandler, NoOpEncryptionHandler>);

static_assert(std::is_constructible_v<W, const QVariantHash&>);
static_assert(!std::is_constructible_v<W, const QVariantHash&, QObject*>);
static_assert(!std::is_default_constructible_v<W>);
static_assert(!std::is_copy_constructible_v<W>);
static_assert(std::has_virtual_destructor_v<W>);

template<typename Function, Function>
struct Has : std::true_type
{
};

static_assert(Has<void (W::*)(const CMGetDataRequest&), &W::getDataRequest>::value);
static_assert(Has<void (W::*)(const CMGetRowsRequest&), &W::getRowsRequest>::value);
static_assert(Has<void (W::*)(const CMSetDataRequest&), &W::setDataRequest>::value);
static_assert(Has<QString (*)(const CMPath&), &W::getRequestSettingPath>::value);
static_assert(Has<QString (W::*)(const QString&), &W::parentPath>::value);
static_assert(Has<QString (W::*)(const QString&), &W::filePath>::value);
static_assert(Has<QVariant (W::*)(const QString&, bool), &W::loadFile>::value);
static_assert(Has<TuloRoles (W::*)(const QString&, bool*), &W::load>::value);
static_assert(Has<QStringList (W::*)(const QString&, bool*), &W::getDir>::value);
static_assert(Has<void (W::*)(const QString&, const TuloRoles&), &W::updateParentDir>::value);
static_assert(Has<TrString (W::*)(const QString&, const QString&), &W::translateString>::value);
static_assert(
    Has<void (W::*)(CMReply<QVariant>, const QString&, const TuloRoles&), &W::saveValue>::value);
static_assert(Has<void (W::*)(const QString&, const TuloRoles&), &W::writeFile>::value);

static_assert(std::is_same_v<decltype(W::CacheRecord::roles), TuloRoles>);
static_assert(std::is_same_v<decltype(W::CacheRecord::exists), bool>);
static_assert(std::is_same_v<decltype(W::DirCacheRecord::entries), QStringList>);
static_assert(std::is_same_v<decltype(W::DirCacheRecord::exists), bool>);

static_assert(std::is_same_v<decltype(W::m_mutex), QMutex>);
static_assert(std::is_same_v<decltype(W::m_defaultPath), QString>);
static_assert(std::is_same_v<decltype(W::m_writePath), QString>);
static_assert(std::is_same_v<decltype(W::m_valueCache), QCache<QString, W::CacheRecord>>);
static_assert(std::is_same_v<decltype(W::m_pendingWrites), QHash<QString, TuloRoles>>);
static_assert(std::is_same_v<decltype(W::m_dirCache), QHash<QString, W::DirCacheRecord>>);
static_assert(std::is_same_v<decltype(W::m_writeTimer), QTimer*>);
static_assert(std::is_same_v<decltype(W::m_productPostfix), QString>);
static_assert(std::is_same_v<decltype(W::m_encryptionHandler), EncryptionHandler*>);
static_assert(std::is_same_v<decltype(W::m_valuePathMap), QHash<QString, QString>>);
static_assert(std::is_same_v<decltype(W::m_dataPathMap), QHash<QString, QString>>);
static_assert(std::is_same_v<decltype(W::m_rowsPathMap), QHash<QString, QString>>);

// ---------------------------------------------------------------------------------------------
// Places, as the compiler chose them (Itanium C++ ABI).
// ---------------------------------------------------------------------------------------------

struct Member
{
    const char* name;
    std::size_t offset;
    std::size_t size;
    std::size_t alignment;
};

#define MEMBER(object, member)                                                                     \
    Member                                                                                         \
    {                                                                                              \
#member,                                                                                   \
            std::size_t(reinterpret_cast <const char*>(&(object).member)                           \
                        - reinterpret_cast <const char*>(&(object))),                              \
            sizeof((object).member), alignof(decltype((object).member))                            \
    }

std::size_t aligned(std::size_t offset, std::size_t alignment)
{
    return (offset + alignment - 1) / alignment * alignment;
}

// A pointer to a virtual member function is the offset of its slot; the lowest bit is a mark on
// some processors.
template<typename MemberFunction>
int slotOf(MemberFunction function)
{
    std::uintptr_t parts[2];
    static_assert(sizeof(function) == sizeof(parts));
    std::memcpy(parts, &function, sizeof(parts));
    return int((parts[0] & ~std::uintptr_t(1)) / sizeof(void*));
}

using Slot = const void*;

std::vector<Slot> virtualTable(const QObject& object, int count)
{
    const Slot* const* const table = reinterpret_cast<const Slot* const*>(&object);
    return std::vector<Slot>(*table, *table + count);
}

constexpr int slotCount = 21;

} // namespace

class tst_worker_interface : public QObject
{
    Q_OBJECT

private slots:
    void init() { m = std::make_unique<WorkerFixture>(); }
    void cleanup()
    {
        m->log.verifyNothingUnexpected();
        m.reset();
    }

    void membersFollowBaseInOrderWithNothingBetween();
    void virtualOperationsHaveTheirSlots();
    void virtualTableEndsAfterDisconnectChange();
    void overriddenSlotsDifferFromBaseAndOthersDoNot();
    void encryptionHandlerOperationsHaveTheirSlots();

    void metaObjectHasNameAndBases();
    void metaObjectHasNineMethodsAndNothingElse();
    void metaObjectMethod_data();
    void metaObjectMethod();
    void metacastKnowsClassAndBases();
    void metacallServesBaseBeforeNineMethods();
    void slotsCanBeInvokedByIndex();
    void inheritedOperationsAnswerLikeBase();

private:
    std::unique_ptr<WorkerFixture> m;
};

void tst_worker_interface::membersFollowBaseInOrderWithNothingBetween()
{
    const CMSettingsWorker& worker = m->create();
    const Member members[] = {
        MEMBER(worker, m_mutex),
        MEMBER(worker, m_defaultPath),
        MEMBER(worker, m_writePath),
        MEMBER(worker, m_valueCache),
        MEMBER(worker, m_pendingWrites),
        MEMBER(worker, m_dirCache),
        MEMBER(worker, m_writeTimer),
        MEMBER(worker, m_productPostfix),
        MEMBER(worker, m_encryptionHandler),
        MEMBER(worker, m_valuePathMap),
        MEMBER(worker, m_dataPathMap),
        MEMBER(worker, m_rowsPathMap),
    };

    std::size_t end = sizeof(CMWorker);
    for (const Member& member : members) {
        QVERIFY2(member.offset == aligned(end, member.alignment), member.name);
        end = member.offset + member.size;
    }
    QCOMPARE(aligned(end, alignof(CMSettingsWorker)), sizeof(CMSettingsWorker));
}

void tst_worker_interface::virtualOperationsHaveTheirSlots()
{
    QCOMPARE(slotOf(&QObject::metaObject), 0);
    QCOMPARE(slotOf(&QObject::qt_metacast), 1);
    QCOMPARE(slotOf(&QObject::qt_metacall), 2);
    // 3 and 4 are the destructors.
    QCOMPARE(slotOf(&QObject::event), 5);
    QCOMPARE(slotOf(&QObject::disconnectNotify), 11);
    QCOMPARE(slotOf(&CMAbstractWorker::request), 12);
    QCOMPARE(slotOf(&CMWorker::ping), 13);
    QCOMPARE(slotOf(&CMWorker::trace), 14);
    QCOMPARE(slotOf(&CMSettingsWorker::getDataRequest), 15);
    QCOMPARE(slotOf(&CMSettingsWorker::getRowsRequest), 16);
    QCOMPARE(slotOf(&CMWorker::matchRowRequest), 17);
    QCOMPARE(slotOf(&CMSettingsWorker::setDataRequest), 18);
    QCOMPARE(slotOf(&CMWorker::connectChange), 19);
    QCOMPARE(slotOf(&CMWorker::disconnectChange), 20);
}

void tst_worker_interface::virtualTableEndsAfterDisconnectChange()
{
    // A class with one more virtual function: it gets the slot after the worker's last.
    struct Derived : CMSettingsWorker
    {
        using CMSettingsWorker::CMSettingsWorker;
        virtual void next() { }
    };

    QCOMPARE(slotOf(&Derived::next), slotCount);
}

void tst_worker_interface::overriddenSlotsDifferFromBaseAndOthersDoNot()
{
    const CMWorker base({}, QStringLiteral("base"));
    const QObject object;

    const std::vector<Slot> ofWorker = virtualTable(m->create(), slotCount);
    const std::vector<Slot> ofBase = virtualTable(base, slotCount);
    const std::vector<Slot> ofObject = virtualTable(object, 12);

    const QList<int> overridden { 0, 1, 2, 3, 4, 15, 16, 18 };
    for (int slot = 0; slot < slotCount; ++slot) {
        const QByteArray number = QByteArray::number(slot);
        QVERIFY2((ofWorker[slot] != ofBase[slot]) == overridden.contains(slot), number.constData());
    }
    for (int slot = 5; slot < 12; ++slot)
        QCOMPARE(ofWorker[slot], ofObject[slot]);
}

void tst_worker_interface::encryptionHandlerOperationsHaveTheirSlots()
{
    // 0 and 1 are the destructors.
    QCOMPARE(slotOf(&EncryptionHandler::encryptionEnabled), 2);
    QCOMPARE(slotOf(&EncryptionHandler::encryptValue), 3);
    QCOMPARE(slotOf(&EncryptionHandler::decryptValue), 4);
    struct Derived : EncryptionHandler
    {
        virtual void next() { }
    };
    QCOMPARE(slotOf(&Derived::next), 5);
    QCOMPARE(sizeof(EncryptionHandler), sizeof(void*)); // no data
}

// ---------------------------------------------------------------------------------------------
// The meta-object.
// ---------------------------------------------------------------------------------------------

void tst_worker_interface::metaObjectHasNameAndBases()
{
    const QMetaObject& type = CMSettingsWorker::staticMetaObject;

    QCOMPARE(type.className(), "CMSettingsWorker");
    QCOMPARE(type.superClass(), &CMWorker::staticMetaObject);
    QCOMPARE(CMWorker::staticMetaObject.superClass(), &CMAbstractWorker::staticMetaObject);
    QCOMPARE(CMAbstractWorker::staticMetaObject.superClass(), &QObject::staticMetaObject);
    QCOMPARE(m->create().metaObject(), &type);
}

void tst_worker_interface::metaObjectHasNineMethodsAndNothingElse()
{
    const QMetaObject& type = CMSettingsWorker::staticMetaObject;

    QCOMPARE(type.methodCount() - type.methodOffset(), 9);
    QCOMPARE(type.propertyCount() - type.propertyOffset(), 0);
    QCOMPARE(type.enumeratorCount() - type.enumeratorOffset(), 0);
    QCOMPARE(type.classInfoCount() - type.classInfoOffset(), 0);
    QCOMPARE(type.constructorCount(), 0);
}

void tst_worker_interface::metaObjectMethod_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("access");
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<QList<QByteArray>>("parameterNames");

    int next = 0;
    const auto row = [&next](QMetaMethod::MethodType kind, QMetaMethod::Access access,
                             const char* signature, const QList<QByteArray>& names) {
        QTest::newRow(signature) << next++ << int(kind) << int(access) << QByteArray(signature)
                                 << names;
    };
    const auto signal = [&row](const char* signature, const QList<QByteArray>& names) {
        row(QMetaMethod::Signal, QMetaMethod::Public, signature, names);
    };
    const auto slot = [&row](const char* signature, const QList<QByteArray>& names) {
        row(QMetaMethod::Slot, QMetaMethod::Private, signature, names);
    };
    signal("privateScheduleWrite(QString,TuloRoles)", { "", "" });
    signal("privateFlushInvoked(CMSetDataRequest)", { "" });
    slot("on_scheduleWrite(QString,TuloRoles)", { "path", "roles" });
    slot("on_writeTimer_timeout()", {});
    slot("on_flush_invoked(CMSetDataRequest)", { "request" });
    slot("on_languageChanged()", {});
    slot("on_subscribe_dataPathAdded(CMPath)", { "path" });
    slot("on_subscribe_rowsPathAdded(CMPath)", { "path" });
    slot("on_subscribe_valuePathAdded(CMPath)", { "path" });
}

void tst_worker_interface::metaObjectMethod()
{
    QFETCH(int, index);
    QFETCH(int, kind);
    QFETCH(int, access);
    QFETCH(QByteArray, signature);
    QFETCH(QList<QByteArray>, parameterNames);
    const QMetaObject& type = CMSettingsWorker::staticMetaObject;

    const QMetaMethod method = type.method(type.methodOffset() + index);

    QCOMPARE(int(method.methodType()), kind);
    QCOMPARE(int(method.access()), access);
    QCOMPARE(method.methodSignature(), signature);
    QCOMPARE(method.parameterNames(), parameterNames);
    QCOMPARE(method.typeName(), "void");
    QCOMPARE(method.revision(), 0);
    QCOMPARE(method.tag(), "");
}

void tst_worker_interface::metacastKnowsClassAndBases()
{
    CMSettingsWorker& worker = m->create();

    for (const char* name : { "CMSettingsWorker", "CMWorker", "CMAbstractWorker", "QObject" })
        QCOMPARE(worker.qt_metacast(name), static_cast<void*>(&worker));
    for (const char* name : { "", "CMSettings", "QTimer" })
        QVERIFY(worker.qt_metacast(name) == nullptr);
    QVERIFY(worker.qt_metacast(nullptr) == nullptr);
}

void tst_worker_interface::metacallServesBaseBeforeNineMethods()
{
    CMSettingsWorker& worker = m->create();
    const int offset = CMSettingsWorker::staticMetaObject.methodOffset();
    CMPath path(QStringLiteral("/settings/a"));
    void* arguments[] = { nullptr, &path };

    // What is left of an index when all classes have taken theirs.
    QCOMPARE(worker.qt_metacall(QMetaObject::InvokeMetaMethod, offset + 9, arguments), 0);
    QCOMPARE(worker.qt_metacall(QMetaObject::InvokeMetaMethod, offset + 13, arguments), 4);
    QVERIFY(worker.qt_metacall(QMetaObject::InvokeMetaMethod, offset + 8, arguments) < 0);
    const int objectNameChanged =
        QObject::staticMetaObject.indexOfSignal("objectNameChanged(QString)");
    QString name;
    void* nameArguments[] = { nullptr, &name };
    QVERIFY(objectNameChanged >= 0 && objectNameChanged < offset);
    QVERIFY(worker.qt_metacall(QMetaObject::InvokeMetaMethod, objectNameChanged, nameArguments)
            < 0);
}

void tst_worker_interface::slotsCanBeInvokedByIndex()
{
    CMSettingsWorker& worker = m->create();
    const int offset = CMSettingsWorker::staticMetaObject.methodOffset();
    const QString wrongPath = QStringLiteral("settings/a");
    const QHash<QString, QString> expected { { QStringLiteral("/a"), QStringLiteral("a") } };
    const QHash<QString, QString>* const maps[] = { &worker.m_dataPathMap, &worker.m_rowsPathMap,
                                                    &worker.m_valuePathMap };

    for (int i = 0; i < 3; ++i) {
        QVERIFY(maps[i]->isEmpty());
        CMPath path(wrongPath);
        void* arguments[] = { nullptr, &path };
        m->log.expect(log4cplus::WARN_LOG_LEVEL,
                      QStringLiteral("Wrong settings path detected: 'settings/a' - please fix your "
                                     "code. Adding missing leading '/' for now."));

        worker.qt_metacall(QMetaObject::InvokeMetaMethod, offset + 6 + i, arguments);

        QCOMPARE(*maps[i], expected);
    }
}

void tst_worker_interface::inheritedOperationsAnswerLikeBase()
{
    CMSettingsWorker& worker = m->create();

    const auto pinged = CMReply<QVariant>::create();
    worker.request(CMSetDataRequest::ping(CMPath(QStringLiteral("/settings")), pinged));
    QVERIFY(pinged.isFinished());
    QVERIFY(pinged.error().name().isEmpty());
    QVERIFY(!pinged.value().isValid());

    const CMPath path(QStringLiteral("/settings/a"));
    const auto matched = CMReply<QVariant>::create();
    worker.request(CMMatchRowRequest(path, TuloRoles::Id(), 1, matched));
    COMPARE_RECORDS(matched.error(), CMAbstractWorker::createErrorInvalidPath(path));
}

QTEST_GUILESS_MAIN(tst_worker_interface)
#include "tst_worker_interface.moc"
