// The sealed-box format shared by sealed columns and sealed images, and script fingerprints.
#include "vault/fingerprint.h"
#include "vault/sealed_box.h"
#include "vault/vault_key.h"

#include <QTest>

Q_DECLARE_METATYPE(SealedBoxError::Case)

class TestSealedBox : public QObject
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

    void fingerprintIsTheSha256OfTheUtf8Text()
    {
        // Stored beside saved script state: it must never change.
        QCOMPARE(::fingerprint(QStringLiteral("é")), "4a99557e4033c3539de2eb65472017cad5f9557f7a0625a09f1c3f6e2ba69c4c");
    }
};

QTEST_GUILESS_MAIN(TestSealedBox)
#include "tst_sealed_box.moc"
