// The stored JSON form of the vault record and its seal.
#include "vault/vault_record.h"

#include <QTest>

namespace {

QByteArray counting(int from, int count)
{
    QByteArray bytes;
    for (int i = 0; i < count; ++i)
        bytes += char(from + i);
    return bytes;
}

// Written out by hand; "/" is escaped the way Foundation's encoder escapes it.
const QByteArray sealedJson = R"({"salt":"+\/v7+\/v7+\/v7+\/v7+\/v7+w==","rounds":600000,)"
    R"("byPassword":"AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8gISIjJCUmJygpKissLS4vMDEyMzQ1Njc4OTo7",)"
    R"("byRecoveryKey":"ZGVmZ2hpamtsbW5vcHFyc3R1dnd4eXp7fH1+f4CBgoOEhYaHiImKi4yNjo+QkZKTlJWWl5iZmpucnZ6f",)"
    R"("touchID":{"enclaveKey":"+\/v7+w==",)"
    R"("ephemeralPublicKey":"AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8gISIjJCUmJygpKissLS4vMDEyMzQ1Njc4OTo7PD0+Pw==",)"
    R"("sealedKey":"ZGVmZ2hpamtsbW5vcHFyc3R1dnd4eXp7fH1+f4CBgoOEhYaHiImKi4yNjo+QkZKTlJWWl5iZmpucnZ6f"}})";

VaultRecord sealedRecord()
{
    return VaultRecord{QByteArray(16, char(0xfb)), 600000, counting(0, 60), counting(100, 60),
                       TouchIDSeal{QByteArray(4, char(0xfb)), counting(0, 64), counting(100, 60)}};
}

} // namespace

class TestVaultRecord : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void encodesExactly()
    {
        QCOMPARE(sealedRecord().toJson(), sealedJson);
        QCOMPARE(VaultRecord::fromJson(sealedJson), std::optional(sealedRecord()));
    }

    void missingSealIsAbsent()
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

QTEST_GUILESS_MAIN(TestVaultRecord)
#include "tst_vault_record.moc"
