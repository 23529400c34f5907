// The vault key: the sealed box that wraps it (and sealed texts and images), the derivations
// behind the wrapping keys and script fingerprints, the recovery key's text form (its round
// trips are the fuzzer's part), making, opening and rewrapping the key, and the stored
// record's JSON.
#include "support/await_task.h"
#include "vault/fingerprint.h"
#include "vault/recovery_key.h"
#include "vault/sealed_box.h"
#include "vault/vault.h"
#include "vault/vault_record.h"

#include <QTest>
#include <QTimer>

Q_DECLARE_METATYPE(SealedBoxError::Case)

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

// Written out by hand; "/" is escaped the way Foundation's encoder escapes it.
const QByteArray sealedJson = R"({"salt":"+\/v7+w==","rounds":600000,"byPassword":"cHc=","byRecoveryKey":"cms=",)"
    R"("touchID":{"enclaveKey":"+\/s=","ephemeralPublicKey":"ZXA=","sealedKey":"c2s="}})";

const VaultRecord sealedRecord{QByteArray(4, char(0xfb)), 600000, "pw", "rk", TouchIDSeal{QByteArray(2, char(0xfb)), "ep", "sk"}};

} // namespace

class TestVault : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void matchesStandardAesGcm()
    {
        // Made with an independent AES-GCM implementation: nonce, ciphertext, tag.
        const VaultKey zero = *VaultKey::fromBytes(QByteArray(32, 0));
        const QByteArray box = QByteArray(12, 0)
            + QByteArray::fromHex("cea7403d4d606b6e074ec5d3baf39d18d0d1c8a799996bf0265b98b5d48ab919");
        QCOMPARE(SealedBox::open(box, zero), QByteArray(16, 0));

        const QByteArray sealed = SealedBox::seal(QByteArray(16, 0), zero);
        QCOMPARE(sealed.size(), box.size());
        QVERIFY(sealed != SealedBox::seal(QByteArray(16, 0), zero)); // a fresh nonce each time
        QCOMPARE(SealedBox::open(sealed, zero), QByteArray(16, 0));
        QCOMPARE(SealedBox::open(SealedBox::seal({}, zero), zero), QByteArray());
    }

    void damagedBoxesAreRefused_data()
    {
        QTest::addColumn<int>("flippedByte"); // -1: none
        QTest::addColumn<int>("keptBytes"); // -1: all
        QTest::addColumn<SealedBoxError::Case>("expected");
        const auto failed = SealedBoxError::Case::AuthenticationFailed;
        QTest::newRow("nonce changed") << 0 << -1 << failed;
        QTest::newRow("tag changed") << 32 << -1 << failed;
        QTest::newRow("shorter than nonce and tag") << -1 << 27 << SealedBoxError::Case::Malformed;
        QTest::newRow("other key") << -1 << -1 << failed;
    }

    void damagedBoxesAreRefused()
    {
        QFETCH(int, flippedByte);
        QFETCH(int, keptBytes);
        QFETCH(SealedBoxError::Case, expected);
        const VaultKey key = VaultKey::random();
        QByteArray box = SealedBox::seal("hello", key);
        if (flippedByte >= 0)
            box[flippedByte] = char(box.at(flippedByte) ^ 1);
        if (keptBytes >= 0)
            box.truncate(keptBytes);
        try {
            SealedBox::open(box, flippedByte < 0 && keptBytes < 0 ? VaultKey::random() : key);
            QFAIL("a damaged box opened");
        } catch (const SealedBoxError &error) {
            QCOMPARE(error.kind(), expected);
        }
    }

    void derivations_data()
    {
        // Expected keys from Python's hashlib.pbkdf2_hmac and an HKDF written from RFC 5869.
        QTest::addColumn<QString>("derivation");
        QTest::addColumn<QString>("password"); // or fingerprinted text
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
        // The SHA-256 of a script's UTF-8 text, stored beside its saved state: it must never change.
        QTest::newRow("script fingerprint") << "fingerprint" << QStringLiteral("é") << QByteArray() << 0
            << QByteArray("4a99557e4033c3539de2eb65472017cad5f9557f7a0625a09f1c3f6e2ba69c4c");
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
        else if (derivation == "fingerprint")
            QCOMPARE(fingerprint(password).toLatin1(), expected);
        else if (derivation == "recovery")
            QCOMPARE(hex(Vault::recoveryWrappingKey(bytes)), expected);
        else
            QCOMPARE(hex(Vault::touchIDWrappingKey(bytes)), expected);
    }

    void recoveryKeyFormats()
    {
        // Expected texts from an independent big-integer base-32 conversion.
        QCOMPARE(Vault::formatRecoveryKey(QByteArray::fromHex("000102030405060708090a0b0c0d0e0f10111213")),
                 "000G-40R4-0M30-E209-185G-R38E-1W81-24GK");
        QCOMPARE(Vault::formatRecoveryKey(QByteArray(20, char(0xff))), "ZZZZ-ZZZZ-ZZZZ-ZZZZ-ZZZZ-ZZZZ-ZZZZ-ZZZZ");
    }

    void recoveryKeyParses_data()
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

    void recoveryKeyParses()
    {
        QFETCH(QString, typed);
        QFETCH(QByteArray, expected);
        const std::optional<QByteArray> parsed = Vault::parseRecoveryKey(typed);
        if (expected.isEmpty())
            QVERIFY(!parsed);
        else
            QCOMPARE(parsed, std::optional(expected));
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

    void recordEncodesExactly()
    {
        QCOMPARE(sealedRecord.toJson(), sealedJson);
        QCOMPARE(VaultRecord::fromJson(sealedJson), std::optional(sealedRecord));
    }

    void recordWithoutSeal()
    {
        const QByteArray bare = R"({"salt":"AA==","rounds":3,"byPassword":"AQ==","byRecoveryKey":"Ag=="})";
        for (const QByteArray &json : {bare, QByteArray(bare).replace("}", R"(,"touchID":null})")}) {
            const std::optional<VaultRecord> record = VaultRecord::fromJson(json);
            QVERIFY(record && !record->touchID);
            QCOMPARE(record->toJson(), bare);
        }
    }

    void refusesDamagedRecords_data()
    {
        QTest::addColumn<QByteArray>("json");
        const auto row = [](const char *name, const char *json) { QTest::newRow(name) << QByteArray(json); };
        row("no salt", R"({"rounds":3,"byPassword":"AQ==","byRecoveryKey":"Ag=="})");
        row("no rounds", R"({"salt":"AA==","byPassword":"AQ==","byRecoveryKey":"Ag=="})");
        row("no byPassword", R"({"salt":"AA==","rounds":3,"byRecoveryKey":"Ag=="})");
        row("no byRecoveryKey", R"({"salt":"AA==","rounds":3,"byPassword":"AQ=="})");
        row("rounds as text", R"({"salt":"AA==","rounds":"3","byPassword":"AQ==","byRecoveryKey":"Ag=="})");
        row("rounds with a fraction", R"({"salt":"AA==","rounds":3.5,"byPassword":"AQ==","byRecoveryKey":"Ag=="})");
        row("salt as number", R"({"salt":0,"rounds":3,"byPassword":"AQ==","byRecoveryKey":"Ag=="})");
        row("base64 without padding", R"({"salt":"AA","rounds":3,"byPassword":"AQ==","byRecoveryKey":"Ag=="})");
        row("base64url alphabet", R"({"salt":"-_-_","rounds":3,"byPassword":"AQ==","byRecoveryKey":"Ag=="})");
        row("seal missing a key", R"({"salt":"AA==","rounds":3,"byPassword":"AQ==","byRecoveryKey":"Ag==","touchID":{"enclaveKey":"AA==","sealedKey":"AA=="}})");
        row("seal not an object", R"({"salt":"AA==","rounds":3,"byPassword":"AQ==","byRecoveryKey":"Ag==","touchID":"AA=="})");
        row("array", R"([{"salt":"AA==","rounds":3,"byPassword":"AQ==","byRecoveryKey":"Ag=="}])");
        row("truncated", R"({"salt":"AA==","rounds":3,"byPassword":"AQ==","byRecoveryKey":"Ag==")");
        row("empty", "");
    }

    void refusesDamagedRecords()
    {
        QFETCH(QByteArray, json);
        QVERIFY(!VaultRecord::fromJson(json));
    }
};

QTEST_GUILESS_MAIN(TestVault)
#include "tst_vault.moc"
