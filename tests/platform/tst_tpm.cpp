// The computer's TPM as a key store, against a software TPM of the test's own.
#include "platform/tpm.h"
#include "support/software_tpm.h"
#include "vault/p256_key.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <optional>

using Outcome = std::optional<TpmError::Case>; // absent: the secret comes out
Q_DECLARE_METATYPE(Outcome)

namespace {

/// Whether some 32 bytes of `bytes`, read as a P-256 private key, agree with `peer` on
/// `secret`: whether they are the private key that agreed on it. (Compared through the
/// secret because a window of zeros reads as a key with no public point.)
bool holdsPrivateKey(const QByteArray &bytes, const P256Key &peer, const QByteArray &secret)
{
    // SEC 1 ECPrivateKey without its optional public key, which OpenSSL computes on reading.
    const QByteArray before = QByteArray::fromHex("30310201010420");
    const QByteArray after = QByteArray::fromHex("a00a06082a8648ce3d030107");
    for (qsizetype at = 0; at + 32 <= bytes.size(); ++at) {
        const std::optional<P256Key> key = P256Key::fromPrivateKeyDer(before + bytes.mid(at, 32) + after);
        if (key && key->sharedSecret(peer) == secret)
            return true;
    }
    return false;
}

} // namespace

class TestTpm : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        // tpm2-tss logs every refused command, and most rows here are refused on purpose.
        if (qEnvironmentVariableIsEmpty("TSS2_LOG"))
            qputenv("TSS2_LOG", "all+none");
    }

    void keyAgreement_data()
    {
        QTest::addColumn<QString>("change"); // between making the key and using it
        QTest::addColumn<Outcome>("outcome");
        QTest::newRow("none") << "none" << Outcome();
        QTest::newRow("TPM restarted on its state") << "restart" << Outcome();
        QTest::newRow("TPM cleared") << "clear" << Outcome(TpmError::Case::OtherComputer);
        QTest::newRow("key of another TPM") << "other" << Outcome(TpmError::Case::OtherComputer);
        QTest::newRow("private area damaged") << "damaged" << Outcome(TpmError::Case::OtherComputer);
        QTest::newRow("handle cut short") << "truncated" << Outcome(TpmError::Case::OtherComputer);
        QTest::newRow("handle not ours") << "garbage" << Outcome(TpmError::Case::OtherComputer);
        QTest::newRow("peer point off the curve") << "offCurve" << Outcome(TpmError::Case::Failed);
        QTest::newRow("peer point cut short") << "shortPeer" << Outcome(TpmError::Case::Failed);
    }

    void keyAgreement()
    {
        QFETCH(QString, change);
        QFETCH(Outcome, outcome);
        SoftwareTpm software;
        QVERIFY2(software.start(), qPrintable(software.errorString()));
        const Tpm tpm(software.tcti());
        QVERIFY(tpm.isReachable());
        Tpm::Key key = tpm.createKey();

        const P256Key peer = P256Key::generate();
        QByteArray peerPublicKey = peer.rawPublicKey();
        const std::optional<P256Key> tpmPublicKey = P256Key::fromRawPublicKey(key.publicKey);
        QVERIFY(tpmPublicKey);
        const std::optional<QByteArray> expected = peer.sharedSecret(*tpmPublicKey);
        QVERIFY(expected);

        // The handle carries the private key only as the TPM wrapped it. (The check itself
        // must find a key that is there.)
        const P256Key planted = P256Key::generate();
        QVERIFY(holdsPrivateKey(key.handle + planted.privateKeyDer(), peer, *planted.sharedSecret(peer)));
        QVERIFY(!holdsPrivateKey(key.handle, peer, *expected));

        SoftwareTpm other;
        if (change == "restart") {
            software.stop();
            QVERIFY2(software.start(), qPrintable(software.errorString()));
        } else if (change == "clear") {
            QVERIFY2(software.clear(), qPrintable(software.errorString()));
        } else if (change == "other") {
            QVERIFY2(other.start(), qPrintable(other.errorString()));
            key.handle = Tpm(other.tcti()).createKey().handle;
        } else if (change == "damaged") {
            key.handle.back() ^= 1; // the private area comes last
        } else if (change == "truncated") {
            key.handle.chop(1);
        } else if (change == "garbage") {
            key.handle = QByteArray(key.handle.size(), '\x5a');
        } else if (change == "offCurve") {
            peerPublicKey = QByteArray(31, '\0') + '\1' + QByteArray(31, '\0') + '\1';
        } else if (change == "shortPeer") {
            peerPublicKey.chop(1);
        }

        // Used again at every unlock: nothing may stay behind in the TPM's few slots.
        for (int use = 0; use < 3; ++use) {
            try {
                const QByteArray secret = tpm.sharedSecret(key.handle, peerPublicKey);
                QVERIFY2(!outcome, "the TPM agreed on a secret");
                QCOMPARE(secret, *expected);
            } catch (const TpmError &error) {
                QVERIFY2(outcome, qPrintable(error.description()));
                QCOMPARE(error.kind(), *outcome);
            }
        }
    }

    void secretCrossesTheBusEncrypted()
    {
        SoftwareTpm software;
        QVERIFY2(software.start(), qPrintable(software.errorString()));
        QTemporaryDir capture;
        const QString traffic = capture.filePath(QStringLiteral("traffic.pcap"));
        // tpm2-tss's recording interface writes every command and response to this file.
        qputenv("TCTI_PCAP_FILE", traffic.toLocal8Bit());
        const Tpm tpm(QStringLiteral("pcap:") + software.tcti());
        const Tpm::Key key = tpm.createKey();
        const P256Key peer = P256Key::generate();
        const QByteArray secret = tpm.sharedSecret(key.handle, peer.rawPublicKey());
        qunsetenv("TCTI_PCAP_FILE");

        QFile file(traffic);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray recorded = file.readAll();
        QVERIFY(recorded.contains(peer.rawPublicKey().left(32))); // the recording works
        QCOMPARE(secret, peer.sharedSecret(*P256Key::fromRawPublicKey(key.publicKey)));
        QVERIFY(!recorded.contains(secret));
    }

    void unreachable_data()
    {
        QTest::addColumn<QString>("tcti"); // empty: the software TPM, stopped
        QTest::newRow("software TPM stopped") << QString();
        QTest::newRow("no such socket") << "swtpm:path=/nonexistent/tpm.sock";
        QTest::newRow("no such device") << "device:/nonexistent/tpmrm0";
        QTest::newRow("no such interface") << "nonexistent";
    }

    void unreachable()
    {
        QFETCH(QString, tcti);
        SoftwareTpm software;
        QVERIFY2(software.start(), qPrintable(software.errorString()));
        const Tpm::Key key = Tpm(software.tcti()).createKey();
        software.stop();
        const Tpm tpm(tcti.isEmpty() ? software.tcti() : tcti);

        QVERIFY(!tpm.isReachable());
        const auto failure = [](const auto &call) -> std::optional<TpmError::Case> {
            try {
                call();
            } catch (const TpmError &error) {
                return error.kind();
            }
            return std::nullopt;
        };
        QCOMPARE(failure([&] { tpm.createKey(); }), std::optional(TpmError::Case::Unreachable));
        QCOMPARE(failure([&] { tpm.sharedSecret(key.handle, P256Key::generate().rawPublicKey()); }),
                 std::optional(TpmError::Case::Unreachable));
    }
};

QTEST_GUILESS_MAIN(TestTpm)
#include "tst_tpm.moc"
