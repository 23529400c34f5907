#pragma once

#include "platform/error.h"

#include <QByteArray>
#include <QString>

#include <cstdint>

/// The computer's TPM 2.0 as a store of P-256 key-agreement keys whose private half never
/// leaves the chip. Every call blocks while the TPM works (a real chip can take a second) and
/// uses no event loop, so callers run it on a worker thread. Each call opens its own connection
/// and closes it before returning, so calls on different threads share nothing.
class Tpm
{
public:
    /// A key made inside the TPM. `handle` is this class's own blob: the key's public area and
    /// its private area as wrapped by the TPM (useless outside that TPM), enough to load the key
    /// again in a later run. `publicKey` is raw X and Y, 32 bytes each.
    struct Key
    {
        QByteArray handle;
        QByteArray publicKey;
    };

    /// `tcti` selects the TPM as tpm2-tss's TCTI loader reads it: "device:/dev/tpmrm0", or
    /// "swtpm:path=SOCKET" for a software TPM.
    explicit Tpm(QString tcti = defaultTcti());

    /// The environment variable CORVANE_TPM_TCTI when set, else the kernel's resource manager
    /// "device:/dev/tpmrm0" (which several programs may use at once, unlike /dev/tpm0).
    static QString defaultTcti();

    /// Whether the TPM answers and can make and use P-256 key-agreement keys. Never throws;
    /// returns at once when there is no such device.
    bool isReachable() const noexcept;

    /// Makes a new key under the owner hierarchy's storage key. Throws TpmError.
    Key createKey() const;

    /// The ECDH shared secret of the key behind `handle` with the raw P-256 point
    /// `peerRawPublicKey` (64 bytes): the X coordinate, 32 bytes, as OpenSSL derives it. Secret:
    /// the caller wipes it. Throws TpmError; otherComputer when the key does not belong to
    /// this TPM (or to this TPM before it was cleared).
    QByteArray sharedSecret(const QByteArray &handle, const QByteArray &peerRawPublicKey) const;

private:
    QByteArray m_tcti;
};

/// The TPM could not make or use a key. Callers that fall back to the password tell the cases
/// apart by `kind()`.
class TpmError : public CorvaneError
{
public:
    enum class Case {
        Unreachable, ///< no TPM answered
        OtherComputer, ///< the key is not this TPM's, or the TPM was cleared since it was made
        Failed, ///< the TPM refused the operation for another reason
    };

    /// "This computer's security chip can't be reached".
    static TpmError unreachable() { return TpmError(Case::Unreachable, {}); }
    /// "This lock was set up on another computer, or ... reset since. Use your password."
    static TpmError otherComputer() { return TpmError(Case::OtherComputer, {}); }
    /// "This computer's security chip reported an error: " and the TSS's text for `responseCode`.
    static TpmError failed(std::uint32_t responseCode);

    Case kind() const noexcept { return m_case; }

private:
    TpmError(Case which, const QString &detail)
        : CorvaneError(descriptionOf(which, detail))
        , m_case(which)
    {
    }

    static QString descriptionOf(Case which, const QString &detail)
    {
        switch (which) {
        case Case::Unreachable:
            return QStringLiteral("This computer's security chip can't be reached");
        case Case::OtherComputer:
            return QStringLiteral("This lock was set up on another computer, or this computer's "
                                  "security chip was reset since. Use your password.");
        case Case::Failed:
            return QStringLiteral("This computer's security chip reported an error: ") + detail;
        }
        return {};
    }

    Case m_case;
};
