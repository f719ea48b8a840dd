#include "trees/plainjson.h"

#include <QTest>

using namespace tulo;

/// Plain values as JSON text and back.
class TstPlainJson : public QObject
{
    Q_OBJECT

private slots:
    void valueIsTheSameAfterwards_data();
    void valueIsTheSameAfterwards();
    void objectsBecomeMaps();
    void errorNamesItsPlace();
    void whatJsonCannotHoldHasNoText();
};

void TstPlainJson::valueIsTheSameAfterwards_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("truth value") << QVariant(true) << QByteArray("true");
    QTest::newRow("integer") << QVariant(-5LL) << QByteArray("-5");
    QTest::newRow("large integer")
        << QVariant(18446744073709551615ULL) << QByteArray("18446744073709551615");
    QTest::newRow("whole double") << QVariant(1.0) << QByteArray("1.0");
    QTest::newRow("text") << QVariant(QStringLiteral("a\"b")) << QByteArray(R"("a\"b")");
    QTest::newRow("list") << QVariant(QVariantList { 1LL, QStringLiteral("x") })
                          << QByteArray(R"([1,"x"])");
    QTest::newRow("null") << QVariant() << QByteArray("null");
}

void TstPlainJson::valueIsTheSameAfterwards()
{
    QFETCH(const QVariant, value);
    QFETCH(const QByteArray, text);

    QString error;
    const QVariant read = fromJson(text, &error);

    QCOMPARE(error, QString());
    QCOMPARE(read.userType(), value.userType());
    QCOMPARE(read, value);
    QCOMPARE(jsonOf(value), text);
}

void TstPlainJson::objectsBecomeMaps()
{
    QString error;
    const QVariant read = fromJson(R"({"b":[{"c":{}}],"a":1})", &error);

    QCOMPARE(error, QString());
    const QVariantMap inner { { QStringLiteral("c"), QVariantMap() } };
    QCOMPARE(read,
             QVariant(QVariantMap { { QStringLiteral("a"), 1LL },
                                    { QStringLiteral("b"), QVariantList { inner } } }));
    QCOMPARE(read.userType(), int(QMetaType::QVariantMap));
    QCOMPARE(read.toMap().value(QStringLiteral("b")).toList().first().userType(),
             int(QMetaType::QVariantMap));
}

void TstPlainJson::errorNamesItsPlace()
{
    QString error;

    QVERIFY(!fromJson("{\n1", &error).isValid());

    QVERIFY2(error.startsWith(QLatin1String("line 2, column 1: ")), qPrintable(error));
}

void TstPlainJson::whatJsonCannotHoldHasNoText()
{
    QVERIFY(jsonOf(qQNaN()).isNull());
    QVERIFY(jsonOf(QVariantList { qInf() }).isNull());
}

QTEST_GUILESS_MAIN(TstPlainJson)
#include "tst_plainjson.moc"
