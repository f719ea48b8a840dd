#include "daemon/changelimit.h"

#include <QTest>

#include <limits>

using namespace tulo;
using namespace std::chrono_literals;

namespace {

using Time = ChangeLimit::Clock::time_point;

constexpr uint anna = 1000;
constexpr uint ben = 1001;
const Time start = Time() + 1h;

QString refusal(ChangeLimit* limit, uint user, int changes, Time now)
{
    const auto refused = limit->count(user, changes, now);
    return refused ? refused->message : QString();
}

// How many changes, one after the other, a user may make at this moment.
int admitted(ChangeLimit* limit, uint user, Time now)
{
    int count = 0;
    while (!limit->count(user, 1, now))
        ++count;
    return count;
}

} // namespace

/// How many changes a user may make, by a clock of the test's own.
class TstChangeLimit : public QObject
{
    Q_OBJECT

private slots:
    void soManyAtOnceAndThenEvenly();
    void refusalSaysWhenToTryAgain();
    void refusedChangesAreNotCounted();
    void usersDoNotTouchEachOther();
    void requestAboveTheLimitIsAdmittedToTheIdleAndCountsInFull();
    void refusalIsNewsOnceAMinute();
    void anyNumberOfUsersIsKnownInBoundedMemory();
    void usersWhoWaitAreNotForgotten();
    void oneOfEqualsIsForgottenByNumberAndReportedOnesLast();
    void largestNumbersAreCounted();
};

void TstChangeLimit::soManyAtOnceAndThenEvenly()
{
    ChangeLimit limit(60);

    QCOMPARE(admitted(&limit, anna, start), 60);
    QCOMPARE(admitted(&limit, anna, start + 999ms), 0);
    QCOMPARE(admitted(&limit, anna, start + 1s), 1);
    QCOMPARE(admitted(&limit, anna, start + 11s), 10);
    QCOMPARE(admitted(&limit, anna, start + 71s), 60);
    // Nobody saves up more.
    QCOMPARE(admitted(&limit, anna, start + 24h), 60);
}

void TstChangeLimit::refusalSaysWhenToTryAgain()
{
    ChangeLimit limit(60);
    QCOMPARE(admitted(&limit, anna, start), 60);

    QCOMPARE(refusal(&limit, anna, 1, start + 300ms),
             QStringLiteral("User 1000 makes more than 60 changes a minute; try again in 1 s"));
    QCOMPARE(refusal(&limit, anna, 20, start + 300ms),
             QStringLiteral("User 1000 makes more than 60 changes a minute; try again in 20 s"));

    QCOMPARE(refusal(&limit, anna, 20, start + 20s + 300ms), QString());
}

void TstChangeLimit::refusedChangesAreNotCounted()
{
    ChangeLimit limit(60);
    QCOMPARE(admitted(&limit, anna, start), 60);

    for (int i = 0; i < 1000; ++i)
        QVERIFY(limit.count(anna, 1, start));

    QCOMPARE(admitted(&limit, anna, start + 60s), 60);
}

void TstChangeLimit::usersDoNotTouchEachOther()
{
    ChangeLimit limit(60);
    QCOMPARE(admitted(&limit, anna, start), 60);

    QCOMPARE(admitted(&limit, ben, start), 60);
    QCOMPARE(admitted(&limit, anna, start + 10s), 10);
    QCOMPARE(admitted(&limit, ben, start + 10s), 10);
}

// A dump that is loaded, for example.
void TstChangeLimit::requestAboveTheLimitIsAdmittedToTheIdleAndCountsInFull()
{
    ChangeLimit limit(60);
    QVERIFY(!limit.count(anna, 1, start));
    QCOMPARE(refusal(&limit, anna, 180, start),
             QStringLiteral("User 1000 makes more than 60 changes a minute; try again in 1 s"));

    QVERIFY(!limit.count(anna, 180, start + 1s));

    QVERIFY(limit.count(anna, 1, start + 121s));
    QCOMPARE(admitted(&limit, anna, start + 122s), 1);
    QCOMPARE(admitted(&limit, anna, start + 181s), 59);
}

void TstChangeLimit::refusalIsNewsOnceAMinute()
{
    ChangeLimit limit(60);
    QCOMPARE(admitted(&limit, anna, start), 60);
    QVERIFY(!limit.count(ben, 60, start));

    // admitted() was refused one.
    QVERIFY(!limit.count(anna, 60, start)->isNews);
    QVERIFY(limit.count(ben, 60, start)->isNews);
    QVERIFY(!limit.count(ben, 60, start + 59s)->isNews);
    QVERIFY(limit.count(ben, 61, start + 59s + 999ms));
    QVERIFY(!limit.count(ben, 60, start + 60s));
    QVERIFY(limit.count(ben, 60, start + 60s)->isNews);
}

void TstChangeLimit::anyNumberOfUsersIsKnownInBoundedMemory()
{
    ChangeLimit limit(60);

    for (uint user = 2000; user < 22000; ++user)
        QVERIFY(!limit.count(user, 1, start));
    QVERIFY(limit.userCount() <= ChangeLimit::maximumUsers);

    // All of them are idle by then.
    QVERIFY(!limit.count(anna, 1, start + 10min));
    QCOMPARE(limit.userCount(), 1);
}

void TstChangeLimit::usersWhoWaitAreNotForgotten()
{
    ChangeLimit limit(60);
    QCOMPARE(admitted(&limit, anna, start), 60);

    for (uint user = 2000; user < 12000; ++user)
        QVERIFY(!limit.count(user, 1, start));

    QVERIFY(limit.count(anna, 1, start));
}

void TstChangeLimit::oneOfEqualsIsForgottenByNumberAndReportedOnesLast()
{
    constexpr uint first = 2000;
    constexpr uint behindLast = first + ChangeLimit::maximumUsers;
    constexpr uint reported = first + 1;
    ChangeLimit limit(60);
    for (uint user = first; user < behindLast; ++user)
        QVERIFY(!limit.count(user, 1, start));
    for (uint user = first; user <= reported; ++user)
        QVERIFY(limit.count(user, 60, start)->isNews);

    QVERIFY(!limit.count(anna, 60, start));
    QVERIFY(!limit.count(ben, 60, start));

    for (uint user = first; user <= reported; ++user)
        QVERIFY(!limit.count(user, 60, start)->isNews);
    for (uint user = reported + 3; user < behindLast; ++user)
        QVERIFY(limit.count(user, 60, start));
    for (uint user = reported + 1; user < reported + 3; ++user)
        QVERIFY(!limit.count(user, 60, start));
}

void TstChangeLimit::largestNumbersAreCounted()
{
    ChangeLimit slow(1);
    QVERIFY(!slow.count(anna, 10000, start));
    QVERIFY(slow.count(anna, 1, start + 9999min));
    QVERIFY(!slow.count(anna, 1, start + 10000min));

    ChangeLimit fast(ChangeLimit::maximumPerMinute);
    QVERIFY(!fast.count(anna, std::numeric_limits<int>::max(), start));
    QVERIFY(fast.count(anna, 1, start));
}

QTEST_GUILESS_MAIN(TstChangeLimit)
#include "tst_changelimit.moc"
