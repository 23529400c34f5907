#include "vault/computer_key_provider.h"

#include "platform/polkit_presence.h"
#include "platform/tpm.h"
#include "platform/worker_thread.h"

#include <QThreadPool>

namespace {

/// One TPM command sequence at a time: without the kernel's resource manager (swtpm,
/// /dev/tpm0) the TPM has room for the objects of a single call only.
QThreadPool *tpmThread()
{
    static QThreadPool *pool = [] {
        auto *made = new QThreadPool;
        made->setMaxThreadCount(1);
        made->setExpiryTimeout(-1);
        return made;
    }();
    return pool;
}

} // namespace

ComputerKeyProvider::ComputerKeyProvider(QString tcti)
    : m_tcti(std::move(tcti))
    , m_presence(std::make_shared<PolkitPresence>())
{
}

ComputerKeyProvider::ComputerKeyProvider()
    : ComputerKeyProvider(Tpm::defaultTcti())
{
}

ComputerKeyProvider::~ComputerKeyProvider() = default;

QCoro::Task<bool> ComputerKeyProvider::isAvailable()
{
    // Locals only after the first suspension: the provider may be gone by then.
    const std::shared_ptr<PolkitPresence> presence = m_presence;
    // Tasks in locals: g++ 12 mishandles temporaries inside a co_await expression.
    QCoro::Task<bool> probing = onWorkerThread<bool>([tcti = m_tcti] { return Tpm(tcti).isReachable(); }, tpmThread());
    const bool reachable = co_await probing;
    if (!reachable)
        co_return false;
    QCoro::Task<bool> asking = presence->isAvailable();
    const bool answers = co_await asking;
    co_return answers;
}

QCoro::Task<KeyProvider::Key> ComputerKeyProvider::createKey()
{
    QCoro::Task<Tpm::Key> making = onWorkerThread<Tpm::Key>([tcti = m_tcti] { return Tpm(tcti).createKey(); }, tpmThread());
    Tpm::Key made = co_await making;
    co_return Key{std::move(made.handle), std::move(made.publicKey)};
}

QCoro::Task<QByteArray> ComputerKeyProvider::sharedSecret(QByteArray handle, QByteArray peerPublicKey, QString,
                                                          QString)
{
    // polkit words its own dialog from the installed action; the reason and the cancel title
    // are for systems that take them from the caller.
    const QString tcti = m_tcti;
    const std::shared_ptr<PolkitPresence> presence = m_presence;
    QCoro::Task<bool> confirming = presence->confirm();
    const bool confirmed = co_await confirming;
    if (!confirmed)
        throw PresenceDeclined();
    auto agree = [tcti, handle = std::move(handle), peer = std::move(peerPublicKey)] {
        return Tpm(tcti).sharedSecret(handle, peer);
    };
    QCoro::Task<QByteArray> agreeing = onWorkerThread<QByteArray>(std::move(agree), tpmThread());
    QByteArray secret = co_await agreeing;
    co_return secret;
}
