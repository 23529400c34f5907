#pragma once

#include "vault/key_provider.h"

#include <QString>

#include <memory>

class PolkitPresence;

/// Keys held by this computer's TPM 2.0, used only after polkit has checked that the user is
/// there (a fingerprint where PAM uses the reader, else the login password). Protects a sealed
/// vault key against a copied disk and other machines; while the session is open, other code
/// running as the same user could ask the TPM too, so it is weaker than a secure element.
class ComputerKeyProvider : public KeyProvider
{
public:
    /// `tcti` names the TPM (the system's resource manager unless the environment says else).
    explicit ComputerKeyProvider(QString tcti);
    ComputerKeyProvider();
    ~ComputerKeyProvider() override;

    QCoro::Task<bool> isAvailable() override;
    QCoro::Task<Key> createKey() override;
    QCoro::Task<QByteArray> sharedSecret(QByteArray handle, QByteArray peerPublicKey, QString reason,
                                         QString cancelTitle) override;

private:
    QString m_tcti;
    // Shared with the running checks, which may outlive the provider when the application
    // quits while polkit's dialog is open.
    std::shared_ptr<PolkitPresence> m_presence;
};
