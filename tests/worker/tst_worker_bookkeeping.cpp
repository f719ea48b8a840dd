#include "changefixture.h"

#include <QTest>

// The ranges that the worker passes with a rows change.
static QStringList announcedRanges; // NOLINT: cleared before every test

void realRowsChanged(CMSubscribe* registry, const CMPath& path, const QString& command, int first,
                     int last) asm("__real__ZN11CMSubscribe11rowsChangedERK6CMPathRK7QStringii");
void wrappedRowsChanged(CMSubscribe* registry, const CMPath& path, const QString& command,
                        int first,
                        int last) asm("__wrap__ZN11CMSubscribe11rowsChangedERK6CMPathRK7QStringii");

void wrappedRowsChanged(CMSubscribe* registry, const CMPath& path, const QString& command,
                        int first, int last)
{
    announcedRanges.append(QStringLiteral("%1 %2").arg(first).arg(last));
    realRowsChanged(registry, path, command, first, last);
}

class tst_WorkerBookkeeping : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void savedSettingIsListedAtItsPlace_data();
    void savedSettingIsListedAtItsPlace();
    void settingOfAMissingDirectoryIsItsFirstRow();
    void settingOfAnEmptyDirectoryIsItsFirstRow();
    void savedAgainItIsARowThatChanged();
    void directoryThatWasCachedAsMissingExistsFromThenOn();
    void rowsChangeHasNoRange();
    void effectsComeInOrder();
    void rowsInsideTheAnnouncementAreTheOldOnes();
    void nestedSaveInsideTheAnnouncementIsOverwritten();
    void namesThatNoListingShowsBecomeRows_data();
    void namesThatNoListingShowsBecomeRows();
    void topSettingIsBookedUnderTheEmptyParent();
    void grandparentIsLeftAlone();
    void aliasOfTheParentIsToldTheSameCommand();
    void aliasOfAnotherDirectoryIsNotTold();
    void existingChildCopiesNoListing();
    void noFileIsTouched();

private:
    std::unique_ptr<ChangeFixture> m_fixture;
};

void tst_WorkerBookkeeping::init()
{
    announcedRanges.clear();
    m_fixture = std::make_unique<ChangeFixture>();
    m_fixture->tree.writeDefault("/audio/a"_s, R"({"value":{"int":1}})");
    m_fixture->tree.writeDefault("/audio/c"_s, R"({"value":{"int":3}})");
}

void tst_WorkerBookkeeping::cleanup()
{
    m_fixture->log.verifyNothingUnexpected();
    m_fixture.reset();
}

void tst_WorkerBookkeeping::savedSettingIsListedAtItsPlace_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("record");
    QTest::addColumn<QString>("announcement");
    QTest::addColumn<QStringList>("rows");

    QTest::newRow("between") << "b"_s
                             << "1 cmd: +1"_s
                             << "rows /settings/audio +1 1"_s
                             << QStringList { "a"_s, "b"_s, "c"_s };
    QTest::newRow("before") << "Z"_s
                            << "0 cmd: +0"_s
                            << "rows /settings/audio +0 1"_s << QStringList { "Z"_s, "a"_s, "c"_s };
    QTest::newRow("after") << "d"_s
                           << "2 cmd: +2"_s
                           << "rows /settings/audio +2 1"_s << QStringList { "a"_s, "c"_s, "d"_s };
    QTest::newRow("beginning like another")
        << "aa"_s
        << "1 cmd: +1"_s
        << "rows /settings/audio +1 1"_s << QStringList { "a"_s, "aa"_s, "c"_s };
    // By code unit, whatever a dictionary says.
    QTest::newRow("with an umlaut")
        << "ä"_s
        << "2 cmd: +2"_s
        << "rows /settings/audio +2 1"_s << QStringList { "a"_s, "c"_s, "ä"_s };
    QTest::newRow("existing last") << "c"_s
                                   << "1 cmd: 1"_s
                                   << "rows /settings/audio 1 1"_s << QStringList { "a"_s, "c"_s };
    QTest::newRow("existing first") << "a"_s
                                    << "0 cmd: 0"_s
                                    << "rows /settings/audio 0 1"_s << QStringList { "a"_s, "c"_s };
}

void tst_WorkerBookkeeping::savedSettingIsListedAtItsPlace()
{
    QFETCH(QString, name);
    QFETCH(QString, record);
    QFETCH(QString, announcement);
    QFETCH(QStringList, rows);
    RegistryObserver observer(m_fixture->worker->subscribe());
    observer.subscribeRows("/settings/audio"_s);
    m_fixture->log.setLevel(log4cplus::DEBUG_LOG_LEVEL);

    m_fixture->set("/audio/"_s + name, intValue(9));

    QCOMPARE(m_fixture->listing("/audio"_s), rows);
    QCOMPARE(observer.texts(), QStringList { announcement });
    QCOMPARE(m_fixture->log.messages(log4cplus::DEBUG_LOG_LEVEL).last(),
             "Rows Changed: /settings/audio "_s + record);
}

void tst_WorkerBookkeeping::settingOfAMissingDirectoryIsItsFirstRow()
{
    RegistryObserver observer(m_fixture->worker->subscribe());
    observer.subscribeRows("/settings/new/deep"_s);

    m_fixture->set("/new/deep/b"_s, intValue(9));

    QCOMPARE(m_fixture->listing("/new/deep"_s), QStringList { "b"_s });
    QCOMPARE(observer.texts(), QStringList { "rows /settings/new/deep +0 1"_s });
    QVERIFY(m_fixture->worker->m_dirCache.value("/new/deep"_s).exists);
}

void tst_WorkerBookkeeping::settingOfAnEmptyDirectoryIsItsFirstRow()
{
    m_fixture->tree.makeDefaultDirectory("/empty"_s);
    RegistryObserver observer(m_fixture->worker->subscribe());
    observer.subscribeRows("/settings/empty"_s);

    m_fixture->set("/empty/b"_s, intValue(9));

    QCOMPARE(m_fixture->listing("/empty"_s), QStringList { "b"_s });
    QCOMPARE(observer.texts(), QStringList { "rows /settings/empty +0 1"_s });
}

void tst_WorkerBookkeeping::savedAgainItIsARowThatChanged()
{
    RegistryObserver observer(m_fixture->worker->subscribe());
    observer.subscribeRows("/settings/audio"_s);

    m_fixture->set("/audio/b"_s, intValue(9));
    m_fixture->set("/audio/b"_s, intValue(9));

    QCOMPARE(observer.texts(),
             QStringList({ "rows /settings/audio +1 1"_s, "rows /settings/audio 1 2"_s }));
    QCOMPARE(m_fixture->listing("/audio"_s), QStringList({ "a"_s, "b"_s, "c"_s }));
}

void tst_WorkerBookkeeping::directoryThatWasCachedAsMissingExistsFromThenOn()
{
    const auto before = getRows(m_fixture->worker.get(), "/settings/new"_s, 0, 9, {});

    m_fixture->set("/new/b"_s, intValue(9));

    const auto after =
        getRows(m_fixture->worker.get(), "/settings/new"_s, 0, 9, { TuloRoles::Value() });
    QCOMPARE(errorText(before), "InvalidPath: Invalid path '/settings/new'"_s);
    QCOMPARE(errorText(after), QString());
    QCOMPARE(json(after.value().rows()), QByteArray(R"([[{"int":9}]])"));
}

void tst_WorkerBookkeeping::rowsChangeHasNoRange()
{
    RegistryObserver client(m_fixture->worker->subscribe());
    client.subscribeRows("settings/audio"_s);
    m_fixture->log.take();

    m_fixture->set("/audio/b"_s, intValue(9));

    QCOMPARE(announcedRanges, QStringList({ "-1 -1"_s, "-1 -1"_s }));
}

// The parent is listed first (its names are in the command), stored last.
void tst_WorkerBookkeeping::effectsComeInOrder()
{
    CMSettingsWorker* worker = m_fixture->worker.get();
    RegistryObserver client(worker->subscribe());
    client.subscribeRows("settings/audio"_s);
    m_fixture->log.setLevel(log4cplus::DEBUG_LOG_LEVEL);
    Journal journal(&m_fixture->log);
    RegistryObserver observer(worker->subscribe());
    observer.onAnnouncement = [&](const Announcement& made) {
        journal.note(made.text() + "; listed "_s + m_fixture->listing("/audio"_s).join(" "_s));
    };
    observer.observe();

    worker->updateParentDir("/audio/b"_s, TuloRoles());
    journal.note("listed "_s + m_fixture->listing("/audio"_s).join(" "_s));

    QCOMPARE(journal.entries(),
             QStringList({ "DEBUG Rows Changed: /settings/audio 1 cmd: +1"_s,
                           "rows /settings/audio +1 1; listed a c"_s,
                           "rows settings/audio +1 1; listed a c"_s, "listed a b c"_s }));
}

void tst_WorkerBookkeeping::rowsInsideTheAnnouncementAreTheOldOnes()
{
    RegistryObserver observer(m_fixture->worker->subscribe());
    QByteArray inside;
    observer.onAnnouncement = [&](const Announcement&) {
        inside =
            json(getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 9, { TuloRoles::Value() })
                     .value()
                     .rows());
    };
    observer.subscribeRows("/settings/audio"_s);

    m_fixture->set("/audio/b"_s, intValue(9));

    QCOMPARE(inside, QByteArray(R"([[{"int":1}],[{"int":3}]])"));
}

void tst_WorkerBookkeeping::nestedSaveInsideTheAnnouncementIsOverwritten()
{
    RegistryObserver observer(m_fixture->worker->subscribe());
    QStringList inside;
    observer.onAnnouncement = [&](const Announcement&) {
        if (inside.isEmpty()) {
            inside.append("nested"_s);
            m_fixture->set("/audio/d"_s, intValue(9));
            inside = m_fixture->listing("/audio"_s);
        }
    };
    observer.subscribeRows("/settings/audio"_s);

    m_fixture->set("/audio/b"_s, intValue(9));

    QCOMPARE(inside, QStringList({ "a"_s, "c"_s, "d"_s }));
    QCOMPARE(m_fixture->listing("/audio"_s), QStringList({ "a"_s, "b"_s, "c"_s }));
    // The setting itself is there; only its row is lost until it is saved again.
    QCOMPARE(json(m_fixture->get("/audio/d"_s, TuloRoles::Value())), QByteArray(R"({"int":9})"));
}

void tst_WorkerBookkeeping::namesThatNoListingShowsBecomeRows_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QStringList>("rows");

    QTest::newRow("with a dot") << "b.json"_s << QStringList { "a"_s, "b.json"_s, "c"_s };
    QTest::newRow("hidden") << ".b"_s << QStringList { ".b"_s, "a"_s, "c"_s };
    QTest::newRow("with a blank") << "b b"_s << QStringList { "a"_s, "b b"_s, "c"_s };
    QTest::newRow("empty") << ""_s << QStringList { ""_s, "a"_s, "c"_s };
}

void tst_WorkerBookkeeping::namesThatNoListingShowsBecomeRows()
{
    QFETCH(QString, name);
    QFETCH(QStringList, rows);

    m_fixture->worker->updateParentDir("/audio/"_s + name, TuloRoles());

    QCOMPARE(m_fixture->listing("/audio"_s), rows);
}

// "/x" has the parent "", which is another key than the "/" of the top directory's listing; both
// are announced as the prefix.
void tst_WorkerBookkeeping::topSettingIsBookedUnderTheEmptyParent()
{
    RegistryObserver observer(m_fixture->worker->subscribe());
    observer.subscribeRows("/settings"_s);
    const auto before = getRows(m_fixture->worker.get(), "/settings"_s, 0, 9, {});

    m_fixture->set("/x"_s, intValue(9));

    const auto after = getRows(m_fixture->worker.get(), "/settings"_s, 0, 9, {});
    QCOMPARE(observer.texts(), QStringList { "rows /settings +1 1"_s });
    QCOMPARE(m_fixture->listing(""_s), QStringList({ "audio"_s, "x"_s }));
    QCOMPARE(m_fixture->listing("/"_s), QStringList { "audio"_s });
    QCOMPARE(before.value().rowsCount(), 1);
    QCOMPARE(after.value().rowsCount(), 1);
    QCOMPARE(after.value().rowsVersion(), 1);
}

void tst_WorkerBookkeeping::grandparentIsLeftAlone()
{
    RegistryObserver observer(m_fixture->worker->subscribe());
    observer.observe();
    getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 0, {});

    m_fixture->set("/audio/new/b"_s, intValue(9));

    QCOMPARE(observer.texts().last(), "rows /settings/audio/new +0 1"_s);
    QCOMPARE(observer.texts().size(), 3);
    QStringList listed = m_fixture->worker->m_dirCache.keys();
    listed.sort();
    QCOMPARE(listed, QStringList({ "/audio"_s, "/audio/new"_s }));
    QCOMPARE(m_fixture->listing("/audio"_s), QStringList({ "a"_s, "c"_s }));
}

void tst_WorkerBookkeeping::aliasOfTheParentIsToldTheSameCommand()
{
    RegistryObserver client(m_fixture->worker->subscribe());
    client.subscribeRows("settings/audio"_s);
    RegistryObserver observer(m_fixture->worker->subscribe());
    observer.subscribeRows("/settings/audio"_s);
    m_fixture->log.take();

    m_fixture->set("/audio/b"_s, intValue(9));
    m_fixture->set("/audio/b"_s, intValue(9));

    QCOMPARE(client.texts(),
             QStringList({ "rows settings/audio +1 1"_s, "rows settings/audio 1 2"_s }));
    QCOMPARE(observer.texts(),
             QStringList({ "rows /settings/audio +1 1"_s, "rows /settings/audio 1 2"_s }));
}

void tst_WorkerBookkeeping::aliasOfAnotherDirectoryIsNotTold()
{
    RegistryObserver client(m_fixture->worker->subscribe());
    client.subscribeRows("settings"_s);
    client.subscribeRows("settings/audio/b"_s);
    client.subscribeData("settings/audio"_s);
    client.subscribeValue("settings/audio"_s);
    m_fixture->log.take();

    m_fixture->set("/audio/b"_s, intValue(9));

    QCOMPARE(client.texts(), QStringList());
}

// A directory may have ten thousand names; saving one of them must not copy the others.
void tst_WorkerBookkeeping::existingChildCopiesNoListing()
{
    getRows(m_fixture->worker.get(), "/settings/audio"_s, 0, 0, {});
    const QStringList before = m_fixture->listing("/audio"_s);

    m_fixture->set("/audio/c"_s, intValue(9));
    QVERIFY(m_fixture->listing("/audio"_s).isSharedWith(before));

    m_fixture->set("/audio/b"_s, intValue(9));
    QVERIFY(!m_fixture->listing("/audio"_s).isSharedWith(before));
    QCOMPARE(before, QStringList({ "a"_s, "c"_s }));
}

void tst_WorkerBookkeeping::noFileIsTouched()
{
    m_fixture->worker->updateParentDir("/new/b"_s, TuloRoles());

    QCOMPARE(m_fixture->tree.writtenEntries(), QStringList());
    QVERIFY(m_fixture->worker->m_pendingWrites.isEmpty());
}

QTEST_GUILESS_MAIN(tst_WorkerBookkeeping)
#include "tst_worker_bookkeeping.moc"
