#pragma once

#include "vault/key_provider.h"

/// A KeyProvider whose keys live in ordinary memory, for tests of the key seal. The handle is
/// the private key itself, so a seal made with it protects nothing; the application never
/// uses it. It can act out a cancelled check and a change of enrolled fingers.
class SoftwareKeyProvider : public KeyProvider
{
public:
    /// A handle as this provider makes it, from a P-256 private key in DER (SEC 1 or PKCS #8).
    static QByteArray handleFor(const QByteArray &privateKeyDer);

    Key createKey() override;
    QCoro::Task<QByteArray> sharedSecret(QByteArray handle, QByteArray peerPublicKey,
                                         QString reason, QString cancelTitle) override;

    /// Makes the next checks fail as if the user pressed the cancel button.
    void setCancelsCheck(bool cancels) { m_cancelsCheck = cancels; }
    /// Invalidates every key made so far, as a change of enrolled fingers does.
    void changeEnrolledFingers() { ++m_enrolment; }

    /// The texts that the last check showed.
    QString lastReason() const { return m_lastReason; }
    QString lastCancelTitle() const { return m_lastCancelTitle; }

private:
    char m_enrolment = 0;
    bool m_cancelsCheck = false;
    QString m_lastReason;
    QString m_lastCancelTitle;
};
