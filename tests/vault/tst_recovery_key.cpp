// The recovery key's text form: exact formatting and what typing it back accepts. Round trips
// of arbitrary keys are the fuzzer's part.
#include "vault/recovery_key.h"

#include <QTest>

class TestRecoveryKey : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void formats_data()
    {
        // Expected texts from an independent big-integer base-32 conversion.
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("expected");
        QTest::newRow("counting") << QByteArray::fromHex("000102030405060708090a0b0c0d0e0f10111213")
                                  << "000G-40R4-0M30-E209-185G-R38E-1W81-24GK";
        QTest::newRow("all ones") << QByteArray(20, char(0xff)) << "ZZZZ-ZZZZ-ZZZZ-ZZZZ-ZZZZ-ZZZZ-ZZZZ-ZZZZ";
        QTest::newRow("short last group, bits dropped") << QByteArray::fromHex("deadbeef") << "VTPV-XV";
        QTest::newRow("one byte") << QByteArray::fromHex("80") << "G";
        QTest::newRow("empty") << QByteArray() << "";
    }

    void formats()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, expected);
        QCOMPARE(Vault::formatRecoveryKey(bytes), expected);
    }

    void parses_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QByteArray>("expected"); // empty: refused
        const QByteArray zeros(20, 0);
        const QByteArray counting = QByteArray::fromHex("000102030405060708090a0b0c0d0e0f10111213");
        const QString zeroKey = "0000-0000-0000-0000-0000-0000-0000-0000";
        QTest::newRow("zeros with dashes") << zeroKey << zeros;
        QTest::newRow("zeros with spaces") << QString(zeroKey).replace('-', ' ') << zeros;
        QTest::newRow("zeros typed as O") << QString(zeroKey).replace('0', 'O') << zeros;
        QTest::newRow("no separators") << QString(32, '0') << zeros;
        QTest::newRow("lower case, l and i as 1")
            << "000g 40r4 0m30 e2o9 l85g r38e iw81 24gk" << counting;
        QTest::newRow("line breaks and punctuation")
            << "  000G-40R4-0M30-E209,\n185G.R38E/1W81_24GK! " << counting;
        QTest::newRow("31 characters") << QString(31, '0') << QByteArray();
        QTest::newRow("33 characters") << QString(33, '0') << QByteArray();
        QTest::newRow("U") << "U" + QString(31, '0') << QByteArray();
        QTest::newRow("accented letter") << QStringLiteral("É") + QString(31, '0') << QByteArray();
        QTest::newRow("accent as combining mark") << QStringLiteral("E\u0301") + QString(31, '0') << QByteArray();
        QTest::newRow("other script digit") << QStringLiteral("\u0663") + QString(31, '0') << QByteArray();
        QTest::newRow("letter beyond 16 bits") << QStringLiteral("\U0001D400") + QString(31, '0') << QByteArray();
        QTest::newRow("empty") << QString() << QByteArray();
    }

    void parses()
    {
        QFETCH(QString, typed);
        QFETCH(QByteArray, expected);
        const std::optional<QByteArray> parsed = Vault::parseRecoveryKey(typed);
        if (expected.isEmpty())
            QVERIFY(!parsed);
        else
            QCOMPARE(parsed, std::optional(expected));
    }
};

QTEST_GUILESS_MAIN(TestRecoveryKey)
#include "tst_recovery_key.moc"
