// libFuzzer target for the vault record as read back from the settings. A damaged row must be
// refused, never crash the reader; a record that is accepted must be written out and read back
// as the same record; and every record the application can write, with any bytes in it and
// whether written by the record itself or by another JSON writer, must read back unchanged.
#include "support/fuzz_require.h"
#include "vault/vault_record.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>

namespace {

void checkStored(const QByteArray &json)
{
    const std::optional<VaultRecord> record = VaultRecord::fromJson(json);
    if (!record)
        return;
    const QByteArray written = record->toJson();
    FUZZ_REQUIRE(VaultRecord::fromJson(written) == record);
}

QByteArray bytes(FuzzedDataProvider &fuzz)
{
    const std::string text = fuzz.ConsumeRandomLengthString(96);
    return QByteArray(text.data(), qsizetype(text.size()));
}

QString base64(const QByteArray &bytes)
{
    return QString::fromLatin1(bytes.toBase64());
}

/// The record as any other writer would put it: indented, "/" left as it is.
QByteArray writtenElsewhere(const VaultRecord &record)
{
    QJsonObject object{{QStringLiteral("salt"), base64(record.salt)},
                       {QStringLiteral("rounds"), record.rounds},
                       {QStringLiteral("byPassword"), base64(record.byPassword)},
                       {QStringLiteral("byRecoveryKey"), base64(record.byRecoveryKey)}};
    if (record.touchID)
        object.insert(QStringLiteral("touchID"),
                      QJsonObject{{QStringLiteral("enclaveKey"), base64(record.touchID->enclaveKey)},
                                  {QStringLiteral("ephemeralPublicKey"), base64(record.touchID->ephemeralPublicKey)},
                                  {QStringLiteral("sealedKey"), base64(record.touchID->sealedKey)}});
    return QJsonDocument(object).toJson(QJsonDocument::Indented);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    checkStored(QByteArray(reinterpret_cast<const char *>(data), qsizetype(size)));

    // A record made of the input's bytes. Rounds are what the vault writes: 32 bits unsigned.
    FuzzedDataProvider fuzz(data, size);
    VaultRecord record;
    record.rounds = fuzz.ConsumeIntegral<std::uint32_t>();
    record.salt = bytes(fuzz);
    record.byPassword = bytes(fuzz);
    record.byRecoveryKey = bytes(fuzz);
    if (fuzz.ConsumeBool()) {
        TouchIDSeal seal;
        seal.enclaveKey = bytes(fuzz);
        seal.ephemeralPublicKey = bytes(fuzz);
        seal.sealedKey = bytes(fuzz);
        record.touchID = seal;
    }
    FUZZ_REQUIRE(VaultRecord::fromJson(record.toJson()) == record);
    FUZZ_REQUIRE(VaultRecord::fromJson(writtenElsewhere(record)) == record);
    return 0;
}
