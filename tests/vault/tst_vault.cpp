// Making, opening and rewrapping the vault key, and the derivations behind it.
#include "support/await_task.h"
#include "vault/vault.h"

#include <QTest>
#include <QTimer>

namespace {

constexpr std::uint32_t fewRounds = 7; // the real count is checked once, off the main thread

QByteArray hex(const VaultKey &key)
{
    return QByteArray(reinterpret_cast<const char *>(key.data()), VaultKey::size).toHex();
}

QByteArray flipped(QByteArray bytes, int at)
{
    bytes[at] = char(bytes.at(at) ^ 0x20);
    return bytes;
}

} // namespace

class TestVault : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void derivations_data()
    {
        // Expected keys from Python's hashlib.pbkdf2_hmac and an HKDF written from RFC 5869.
        QTest::addColumn<QString>("derivation");
        QTest::addColumn<QString>("password");
        QTest::addColumn<QByteArray>("bytes"); // salt, or input key material
        QTest::addColumn<int>("rounds");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("password") << "password" << "correct horse battery staple"
            << QByteArray::fromHex("000102030405060708090a0b0c0d0e0f") << 1000
            << QByteArray("a69b179e3add3c1e0aaf227a0eb3aa2aa8645ab86fecf6ca00c17512697c719e");
        QTest::newRow("empty password") << "password" << "" << QByteArray("0123456789abcdef") << 1
            << QByteArray("9a8a8056e20d881a164805a7c7c966e5d0b830eceaf5bb335ce4d3ca0962a7ad");
        QTest::newRow("UTF-8 password") << "password" << QStringLiteral("pässwörd 🔑")
            << QByteArray(16, char(0xaa)) << 3
            << QByteArray("261e1b8ca75c548997ad16c86c0db65aac33a8bda56e5dd44f141174a15eea7c");
        QTest::newRow("recovery") << "recovery" << ""
            << QByteArray::fromHex("000102030405060708090a0b0c0d0e0f10111213") << 0
            << QByteArray("c6d516ab39733160a16102be0e4bfcb6e5eb5e69078fdc1b7a3765fb238f8d22");
        QTest::newRow("touch id") << "touch id" << ""
            << QByteArray::fromHex("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f") << 0
            << QByteArray("a0b833ccc20578d30b86a086f5e3c54e5a76dd5b61c575391ba9003ff9cfcd10");
    }

    void derivations()
    {
        QFETCH(QString, derivation);
        QFETCH(QString, password);
        QFETCH(QByteArray, bytes);
        QFETCH(int, rounds);
        QFETCH(QByteArray, expected);
        if (derivation == "password")
            QCOMPARE(hex(*Vault::passwordKey(password, bytes, std::uint32_t(rounds))), expected);
        else if (derivation == "recovery")
            QCOMPARE(hex(Vault::recoveryWrappingKey(bytes)), expected);
        else
            QCOMPARE(hex(Vault::touchIDWrappingKey(bytes)), expected);
    }

    void createMakesFreshVaults()
    {
        const Vault::NewVault first = Vault::create("same", fewRounds);
        const Vault::NewVault second = Vault::create("same", fewRounds);
        QVERIFY(first.record.salt != second.record.salt);
        QVERIFY(first.record.byPassword != second.record.byPassword);
        QVERIFY(first.recovery != second.recovery);
        QVERIFY(!(first.key == second.key));
    }

    void opensEveryWay_data()
    {
        QTest::addColumn<QString>("password");
        QTest::newRow("empty") << "";
        QTest::newRow("UTF-8") << QStringLiteral("pässwörd 🔑");
    }

    void opensEveryWay()
    {
        QFETCH(QString, password);
        const Vault::NewVault vault = Vault::create(password, fewRounds);
        QCOMPARE(Vault::openWithPassword(password, vault.record), std::optional(vault.key));
        const QString typed = vault.recovery.toLower().replace('-', ' ');
        QCOMPARE(Vault::openWithRecoveryKey(typed, vault.record), std::optional(vault.key));

        VaultRecord sealed = vault.record;
        sealed.touchID = TouchIDSeal{"handle", QByteArray(64, 1), QByteArray(60, 2)};
        const VaultRecord changed = Vault::changingPassword(vault.key, "new one", sealed, fewRounds);
        QVERIFY(changed.salt != sealed.salt);
        QCOMPARE(changed.byRecoveryKey, sealed.byRecoveryKey);
        QCOMPARE(changed.touchID, sealed.touchID);
        QCOMPARE(Vault::openWithPassword("new one", changed), std::optional(vault.key));
        QCOMPARE(Vault::openWithRecoveryKey(vault.recovery, changed), std::optional(vault.key));
        QVERIFY(!Vault::openWithPassword(password, changed));
    }

    void wrongInputsOpenNothing_data()
    {
        QTest::addColumn<bool>("byRecovery");
        QTest::addColumn<QString>("typed"); // "right": the right password or recovery key
        QTest::addColumn<QString>("damage");
        QTest::newRow("wrong password") << false << "hunter3" << "";
        QTest::newRow("password not trimmed") << false << "café " << "";
        QTest::newRow("password not normalised") << false << QStringLiteral("cafe\u0301") << "";
        QTest::newRow("other recovery key") << true << "ZZZZ-ZZZZ-ZZZZ-ZZZZ-ZZZZ-ZZZZ-ZZZZ-ZZZZ" << "";
        QTest::newRow("recovery key too short") << true << "ZZZZ" << "";
        QTest::newRow("byPassword changed") << false << "right" << "byPassword";
        QTest::newRow("byPassword cut short") << false << "right" << "short";
        QTest::newRow("salt changed") << false << "right" << "salt";
        QTest::newRow("rounds changed") << false << "right" << "rounds";
        QTest::newRow("zero rounds") << false << "right" << "zero rounds";
        QTest::newRow("byRecoveryKey changed") << true << "right" << "byRecoveryKey";
    }

    void wrongInputsOpenNothing()
    {
        QFETCH(bool, byRecovery);
        QFETCH(QString, typed);
        QFETCH(QString, damage);
        const Vault::NewVault vault = Vault::create(QStringLiteral("café"), fewRounds);
        VaultRecord record = vault.record;
        if (damage == "byPassword")
            record.byPassword = flipped(record.byPassword, 30);
        else if (damage == "short")
            record.byPassword.chop(1);
        else if (damage == "salt")
            record.salt = flipped(record.salt, 0);
        else if (damage == "rounds")
            record.rounds += 1; // the stored count is the one that opens
        else if (damage == "zero rounds")
            record.rounds = 0;
        else if (damage == "byRecoveryKey")
            record.byRecoveryKey = flipped(record.byRecoveryKey, 59);
        if (typed == "right")
            typed = byRecovery ? vault.recovery : QStringLiteral("café");

        QVERIFY(!(byRecovery ? Vault::openWithRecoveryKey(typed, record) : Vault::openWithPassword(typed, record)));
    }

    void realRoundsOffTheMainThread()
    {
        // The main thread's event loop keeps turning while the worker derives.
        int ticks = 0;
        QTimer timer;
        connect(&timer, &QTimer::timeout, this, [&ticks] { ++ticks; });
        timer.start(5);

        const Vault::NewVault vault = awaitTask(Vault::createAsync("password"));
        QCOMPARE(vault.record.rounds, qint64(600000));
        QCOMPARE(awaitTask(Vault::openWithPasswordAsync("password", vault.record)),
                 std::optional(vault.key));
        QVERIFY(!awaitTask(Vault::openWithPasswordAsync("Password", vault.record)));
        const VaultRecord changed =
            awaitTask(Vault::changingPasswordAsync(vault.key, "other", vault.record, fewRounds));
        QCOMPARE(Vault::openWithPassword("other", changed), std::optional(vault.key));
        QVERIFY2(ticks > 10, qPrintable(QString::number(ticks)));
    }
};

QTEST_GUILESS_MAIN(TestVault)
#include "tst_vault.moc"
