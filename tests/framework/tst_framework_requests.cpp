#include "api/core/model/cmrequest.h"
#include "tests/support/childprocess.h"

#include <QTest>

#include <csignal>
#include <functional>
#include <type_traits>
#include <utility>

Q_DECLARE_METATYPE(std::function<void()>)

/// Requests: handles on shared data, their fields and their assertions.
class tst_framework_requests : public QObject
{
    Q_OBJECT

private slots:
    void getDataHasItsFields();
    void getRowsHasItsFields();
    void matchRowHasItsFields();
    void setDataHasItsFields();
    void pingHasTheFormOfSetData();
    void copiesShareTheReply();
    void genericHandleKeepsKindPathAndReply();
    void temporaryGivesValues();
    void emptyHandleAssertsD_data();
    void emptyHandleAssertsD();
    void handleOfAnotherKindAsserts();
};

namespace {

const CMPath path(QStringLiteral("/settings/a"));
const QStringList roles { QStringLiteral("value"), QStringLiteral("title") };

} // namespace

void tst_framework_requests::getDataHasItsFields()
{
    const auto reply = CMGetDataRequest::Reply::create();
    const CMGetDataRequest request(path, roles, reply);

    QCOMPARE(int(request.kind()), int(CMRequest::Kind::GetData));
    QVERIFY(request.path() == path);
    QCOMPARE(request.roles(), roles);
    QCOMPARE(request.reply().data(), reply.data());
    QCOMPARE(request.voidReply().data(), reply.data());
}

void tst_framework_requests::getRowsHasItsFields()
{
    const auto reply = CMGetRowsRequest::Reply::create();
    const CMGetRowsRequest request(path, -3, 2147483647, roles, reply);

    QCOMPARE(int(request.kind()), int(CMRequest::Kind::GetRows));
    QVERIFY(request.path() == path);
    QCOMPARE(request.firstRow(), -3);
    QCOMPARE(request.lastRow(), 2147483647);
    QCOMPARE(request.roles(), roles);
    QCOMPARE(request.reply().data(), reply.data());
    QCOMPARE(request.voidReply().data(), reply.data());
}

void tst_framework_requests::matchRowHasItsFields()
{
    const auto reply = CMMatchRowRequest::Reply::create();
    const CMMatchRowRequest request(path, roles.first(), 5, reply);

    QCOMPARE(int(request.kind()), int(CMRequest::Kind::MatchRow));
    QVERIFY(request.path() == path);
    QCOMPARE(request.role(), roles.first());
    QCOMPARE(request.value(), QVariant(5));
    QCOMPARE(request.reply().data(), reply.data());
    QCOMPARE(request.voidReply().data(), reply.data());
}

void tst_framework_requests::setDataHasItsFields()
{
    const auto reply = CMSetDataRequest::Reply::create();
    const CMSetDataRequest request(path, roles.first(), 5, reply);

    QCOMPARE(int(request.kind()), int(CMRequest::Kind::SetData));
    QVERIFY(request.path() == path);
    QCOMPARE(request.role(), roles.first());
    QCOMPARE(request.value(), QVariant(5));
    QCOMPARE(request.reply().data(), reply.data());
    QCOMPARE(request.voidReply().data(), reply.data());
}

void tst_framework_requests::pingHasTheFormOfSetData()
{
    const auto reply = CMSetDataRequest::Reply::create();
    const CMSetDataRequest request = CMSetDataRequest::ping(path, reply);

    QCOMPARE(int(request.kind()), int(CMRequest::Kind::Ping));
    QVERIFY(request.path() == path);
    QCOMPARE(request.role(), QString());
    QVERIFY(!request.value().isValid());
    QCOMPARE(request.reply().data(), reply.data());
}

void tst_framework_requests::copiesShareTheReply()
{
    const CMSetDataRequest request(path, roles.first(), 5, CMSetDataRequest::Reply::create());
    const CMSetDataRequest copy = request; // NOLINT(performance-unnecessary-copy-initialization)
    copy.reply().setValue(1);

    QVERIFY(request.reply().isFinished());
}

void tst_framework_requests::genericHandleKeepsKindPathAndReply()
{
    const auto reply = CMGetDataRequest::Reply::create();
    const CMRequest generic = CMGetDataRequest(path, roles, reply);

    QCOMPARE(int(generic.kind()), int(CMRequest::Kind::GetData));
    QVERIFY(generic.path() == path);
    QCOMPARE(generic.voidReply().data(), reply.data());
    QCOMPARE(CMGetDataRequest(generic).roles(), roles);
}

// A reference would lead into data that goes with the temporary.
void tst_framework_requests::temporaryGivesValues()
{
    static_assert(std::is_same_v<decltype(CMPath().text()), QString>);
    static_assert(std::is_same_v<decltype(CMPath().base()), QString>);
    static_assert(std::is_same_v<decltype(CMRequest().path()), CMPath>);
    static_assert(std::is_same_v<decltype(CMRequest().voidReply()), CMVoidReply>);
    static_assert(std::is_same_v<decltype(CMGetDataRequest().reply()), CMGetDataRequest::Reply>);
    static_assert(std::is_same_v<decltype(CMGetRowsRequest().roles()), QStringList>);
    static_assert(std::is_same_v<decltype(CMGetRowsRequest().reply()), CMGetRowsRequest::Reply>);
    static_assert(std::is_same_v<decltype(CMMatchRowRequest().role()), QString>);
    static_assert(std::is_same_v<decltype(CMMatchRowRequest().value()), QVariant>);
    static_assert(std::is_same_v<decltype(CMMatchRowRequest().reply()), CMMatchRowRequest::Reply>);
    static_assert(std::is_same_v<decltype(CMSetDataRequest().role()), QString>);
    static_assert(std::is_same_v<decltype(CMSetDataRequest().value()), QVariant>);
    static_assert(std::is_same_v<decltype(CMSetDataRequest().reply()), CMSetDataRequest::Reply>);

    const auto reply = CMGetDataRequest::Reply::create();
    QStringList seen;
    for (const QString& role : CMGetDataRequest(path, { roles.at(0), roles.at(1) }, reply).roles())
        seen.append(role);
    const QStringList& bound = CMGetDataRequest(path, { roles.at(0), roles.at(1) }, reply).roles();

    QCOMPARE(seen, roles);
    QCOMPARE(bound, roles);
}

void tst_framework_requests::emptyHandleAssertsD_data()
{
    QTest::addColumn<std::function<void()>>("access");
    const auto row = [](const char* name, const std::function<void()>& access) {
        QTest::newRow(name) << access;
    };
    row("kind", [] { CMRequest().kind(); });
    row("path", [] { CMGetDataRequest().path(); });
    row("voidReply", [] { CMRequest().voidReply(); });
    row("get data roles", [] { CMGetDataRequest().roles(); });
    row("get data reply", [] { CMGetDataRequest().reply(); });
    row("get rows firstRow", [] { CMGetRowsRequest().firstRow(); });
    row("get rows lastRow", [] { CMGetRowsRequest().lastRow(); });
    row("get rows roles", [] { CMGetRowsRequest().roles(); });
    row("get rows reply", [] { CMGetRowsRequest().reply(); });
    row("match row role", [] { CMMatchRowRequest().role(); });
    row("match row value", [] { CMMatchRowRequest().value(); });
    row("match row reply", [] { CMMatchRowRequest().reply(); });
    row("set data role", [] { CMSetDataRequest().role(); });
    row("set data value", [] { CMSetDataRequest().value(); });
    row("set data reply", [] { CMSetDataRequest().reply(); });
}

void tst_framework_requests::emptyHandleAssertsD()
{
    QFETCH(std::function<void()>, access);
    const ChildResult child = ChildProcess::runInChild(access);

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("ASSERT: \"d()\" in file "), child.standardError);
}

void tst_framework_requests::handleOfAnotherKindAsserts()
{
    const ChildResult child = ChildProcess::runInChild([] {
        const CMRequest generic = CMGetDataRequest(path, roles, CMGetDataRequest::Reply::create());
        const CMSetDataRequest wrong(generic);
    });

    QCOMPARE(child.signal, SIGABRT);
    QVERIFY2(child.standardError.contains("kind() == Kind::SetData"), child.standardError);
}

QTEST_GUILESS_MAIN(tst_framework_requests)
#include "tst_framework_requests.moc"
