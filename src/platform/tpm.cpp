#include "platform/tpm.h"

#include <tss2_esys.h>
#include <tss2_mu.h>
#include <tss2_rc.h>
#include <tss2_tctildr.h>

#include <openssl/crypto.h>

#include <QLoggingCategory>

#include <cstring>
#include <memory>
#include <optional>

namespace {

Q_LOGGING_CATEGORY(lcTpm, "corvane.tpm", QtInfoMsg)

constexpr int coordinateSize = 32;

// The handle: "CVTK", a version byte, then the key's TPM2B_PUBLIC and TPM2B_PRIVATE as the TSS
// marshals them (each carries its own size).
constexpr char handleMagic[] = {'C', 'V', 'T', 'K'};
constexpr char handleVersion = 1;
constexpr qsizetype handleHeaderSize = sizeof handleMagic + 1;

struct EsysFree
{
    void operator()(void *data) const { Esys_Free(data); }
};
template <typename T>
using EsysOwned = std::unique_ptr<T, EsysFree>;

// The ECDH point the TPM answers is the shared secret itself.
struct WipeAndFree
{
    void operator()(TPM2B_ECC_POINT *point) const
    {
        OPENSSL_cleanse(point, sizeof *point);
        Esys_Free(point);
    }
};

TpmError errorOf(TSS2_RC rc)
{
    qCDebug(lcTpm, "TPM call failed: 0x%x %s", rc, Tss2_RC_Decode(rc));
    // The transport failed: the device went away, or the software TPM stopped.
    if ((rc & TSS2_RC_LAYER_MASK) == TSS2_TCTI_RC_LAYER)
        return TpmError::unreachable();
    return TpmError::failed(rc);
}

void check(TSS2_RC rc)
{
    if (rc != TSS2_RC_SUCCESS)
        throw errorOf(rc);
}

// TPM2_Load refused the blob itself or its parent, rather than failing for a reason of its
// own (memory, lockout, authorisation). Such errors are "format 1" response codes naming a
// handle or a parameter. After a TPM2_Clear, swtpm answers 0x1df: TPM_RC_INTEGRITY on
// parameter 1, the private area, whose HMAC key derives from the parent's seed, which the
// clear replaced; a blob from another TPM fails the same way.
bool isForeignBlob(TSS2_RC rc)
{
    const TSS2_RC layer = rc & TSS2_RC_LAYER_MASK;
    // A resource manager may answer in the TPM's format in a layer of its own.
    if (layer != TSS2_TPM_RC_LAYER && layer != TSS2_RESMGR_TPM_RC_LAYER)
        return false;
    const TSS2_RC code = rc & 0xffff;
    if (!(code & TPM2_RC_FMT1))
        return false;
    const bool aboutSession = !(code & TPM2_RC_P) && (code & TPM2_RC_S);
    return !aboutSession;
}

/// A P-256 key bound to this TPM and its parent, made inside it, with an empty auth value
/// (presence is checked before the TPM is asked), hence noDA: failed attempts against it must
/// never count towards locking the TPM for the computer's other users of it.
TPM2B_PUBLIC eccKeyTemplate(TPMA_OBJECT use, TPMT_SYM_DEF_OBJECT symmetric)
{
    TPM2B_PUBLIC result{};
    TPMT_PUBLIC &area = result.publicArea;
    area.type = TPM2_ALG_ECC;
    area.nameAlg = TPM2_ALG_SHA256;
    area.objectAttributes = TPMA_OBJECT_FIXEDTPM | TPMA_OBJECT_FIXEDPARENT | TPMA_OBJECT_SENSITIVEDATAORIGIN
        | TPMA_OBJECT_USERWITHAUTH | TPMA_OBJECT_NODA | use;
    TPMS_ECC_PARMS &ecc = area.parameters.eccDetail;
    ecc.symmetric = symmetric;
    ecc.scheme.scheme = TPM2_ALG_NULL;
    ecc.curveID = TPM2_ECC_NIST_P256;
    ecc.kdf.scheme = TPM2_ALG_NULL;
    return result;
}

/// The owner hierarchy's storage key: the same seed and template give the same key every
/// time, so it is re-created for each call rather than kept in the TPM.
TPM2B_PUBLIC storageKeyTemplate()
{
    TPMT_SYM_DEF_OBJECT aes{};
    aes.algorithm = TPM2_ALG_AES;
    aes.keyBits.aes = 128;
    aes.mode.aes = TPM2_ALG_CFB;
    return eccKeyTemplate(TPMA_OBJECT_RESTRICTED | TPMA_OBJECT_DECRYPT, aes);
}

/// An unrestricted decryption key, which is what TPM2_ECDH_ZGen takes.
TPM2B_PUBLIC agreementKeyTemplate()
{
    TPMT_SYM_DEF_OBJECT none{};
    none.algorithm = TPM2_ALG_NULL;
    return eccKeyTemplate(TPMA_OBJECT_DECRYPT, none);
}

/// A TSS context of its own for one call, closed with it.
class Connection
{
public:
    explicit Connection(const QByteArray &tcti)
    {
        const TSS2_RC loaded = Tss2_TctiLdr_Initialize(tcti.constData(), &m_tcti);
        if (loaded != TSS2_RC_SUCCESS) {
            qCDebug(lcTpm, "No TPM at \"%s\": 0x%x %s", tcti.constData(), loaded,
                    Tss2_RC_Decode(loaded));
            throw TpmError::unreachable();
        }
        const TSS2_RC initialized = Esys_Initialize(&m_esys, m_tcti, nullptr);
        if (initialized != TSS2_RC_SUCCESS) {
            Tss2_TctiLdr_Finalize(&m_tcti);
            throw errorOf(initialized);
        }
    }

    ~Connection()
    {
        Esys_Finalize(&m_esys);
        Tss2_TctiLdr_Finalize(&m_tcti);
    }

    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    ESYS_CONTEXT *esys() const { return m_esys; }

private:
    TSS2_TCTI_CONTEXT *m_tcti = nullptr;
    ESYS_CONTEXT *m_esys = nullptr;
};

/// A key or session loaded into the TPM for one call. A TPM has only a few slots, and without
/// a resource manager (a software TPM, /dev/tpm0) nothing frees them when the connection closes.
class Transient
{
public:
    explicit Transient(const Connection &connection)
        : m_esys(connection.esys())
    {
    }

    ~Transient()
    {
        if (m_handle != ESYS_TR_NONE)
            Esys_FlushContext(m_esys, m_handle);
    }

    Transient(const Transient &) = delete;
    Transient &operator=(const Transient &) = delete;

    ESYS_TR get() const { return m_handle; }
    ESYS_TR *out() { return &m_handle; }

private:
    ESYS_CONTEXT *m_esys;
    ESYS_TR m_handle = ESYS_TR_NONE;
};

void createStorageKey(const Connection &tpm, Transient &storageKey)
{
    const TPM2B_SENSITIVE_CREATE sensitive{};
    const TPM2B_PUBLIC inPublic = storageKeyTemplate();
    const TPM2B_DATA outsideInfo{};
    const TPML_PCR_SELECTION creationPcrs{};
    check(Esys_CreatePrimary(tpm.esys(), ESYS_TR_RH_OWNER, ESYS_TR_PASSWORD, ESYS_TR_NONE,
                             ESYS_TR_NONE, &sensitive, &inPublic, &outsideInfo, &creationPcrs,
                             storageKey.out(), nullptr, nullptr, nullptr, nullptr));
}

/// A coordinate as exactly 32 bytes, left-padded with zeros as OpenSSL writes it; a TPM may
/// drop leading zero bytes.
QByteArray coordinate(const TPM2B_ECC_PARAMETER &value)
{
    if (value.size > coordinateSize)
        throw TpmError::failed(TSS2_ESYS_RC_MALFORMED_RESPONSE);
    QByteArray result(coordinateSize, '\0');
    std::memcpy(result.data() + coordinateSize - value.size, value.buffer, value.size);
    return result;
}

struct Blob
{
    TPM2B_PUBLIC publicArea{};
    TPM2B_PRIVATE privateArea{};
};

QByteArray marshal(const TPM2B_PUBLIC &publicArea, const TPM2B_PRIVATE &privateArea)
{
    uint8_t buffer[sizeof(TPM2B_PUBLIC) + sizeof(TPM2B_PRIVATE)];
    size_t offset = 0;
    check(Tss2_MU_TPM2B_PUBLIC_Marshal(&publicArea, buffer, sizeof buffer, &offset));
    check(Tss2_MU_TPM2B_PRIVATE_Marshal(&privateArea, buffer, sizeof buffer, &offset));
    QByteArray handle(handleMagic, sizeof handleMagic);
    handle += handleVersion;
    handle.append(reinterpret_cast<const char *>(buffer), qsizetype(offset));
    return handle;
}

/// The key inside `handle`, or absent when it is not a handle of an agreement key that
/// createKey wrote.
std::optional<Blob> unmarshal(const QByteArray &handle)
{
    if (handle.size() < handleHeaderSize
        || !handle.startsWith(QByteArrayView(handleMagic, sizeof handleMagic))
        || handle.at(sizeof handleMagic) != handleVersion)
        return std::nullopt;
    const auto *data = reinterpret_cast<const uint8_t *>(handle.constData());
    const auto size = size_t(handle.size());
    size_t offset = handleHeaderSize;
    Blob blob;
    if (Tss2_MU_TPM2B_PUBLIC_Unmarshal(data, size, &offset, &blob.publicArea) != TSS2_RC_SUCCESS
        || Tss2_MU_TPM2B_PRIVATE_Unmarshal(data, size, &offset, &blob.privateArea)
            != TSS2_RC_SUCCESS
        || offset != size)
        return std::nullopt;
    const TPMT_PUBLIC &area = blob.publicArea.publicArea;
    if (area.type != TPM2_ALG_ECC || area.nameAlg != TPM2_ALG_SHA256
        || area.parameters.eccDetail.curveID != TPM2_ECC_NIST_P256
        || !(area.objectAttributes & TPMA_OBJECT_DECRYPT)
        || (area.objectAttributes & TPMA_OBJECT_RESTRICTED))
        return std::nullopt;
    return blob;
}

bool supports(const Connection &tpm, const TPM2B_PUBLIC &keyTemplate)
{
    const TPMT_PUBLIC_PARMS parameters{keyTemplate.publicArea.type,
                                       keyTemplate.publicArea.parameters};
    return Esys_TestParms(tpm.esys(), ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, &parameters)
        == TSS2_RC_SUCCESS;
}

} // namespace

TpmError TpmError::failed(std::uint32_t responseCode)
{
    return TpmError(Case::Failed, QString::fromUtf8(Tss2_RC_Decode(responseCode)));
}

Tpm::Tpm(QString tcti)
    : m_tcti(tcti.toUtf8())
{
}

QString Tpm::defaultTcti()
{
    const QString configured = qEnvironmentVariable("CORVANE_TPM_TCTI");
    return configured.isEmpty() ? QStringLiteral("device:/dev/tpmrm0") : configured;
}

bool Tpm::isReachable() const noexcept
{
    try {
        const Connection tpm(m_tcti);
        if (!supports(tpm, storageKeyTemplate()) || !supports(tpm, agreementKeyTemplate()))
            return false;
        TPMI_YES_NO moreData = TPM2_NO;
        TPMS_CAPABILITY_DATA *capabilities = nullptr;
        const TSS2_RC rc = Esys_GetCapability(tpm.esys(), ESYS_TR_NONE, ESYS_TR_NONE,
                                              ESYS_TR_NONE, TPM2_CAP_COMMANDS, TPM2_CC_ECDH_ZGen,
                                              1, &moreData, &capabilities);
        const EsysOwned<TPMS_CAPABILITY_DATA> owned(capabilities);
        if (rc != TSS2_RC_SUCCESS)
            return false;
        const TPML_CCA &commands = capabilities->data.command;
        return commands.count >= 1
            && (commands.commandAttributes[0] & TPMA_CC_COMMANDINDEX_MASK) == TPM2_CC_ECDH_ZGen;
    } catch (...) {
        return false;
    }
}

Tpm::Key Tpm::createKey() const
{
    const Connection tpm(m_tcti);
    Transient storageKey(tpm);
    createStorageKey(tpm, storageKey);

    const TPM2B_SENSITIVE_CREATE sensitive{};
    const TPM2B_PUBLIC inPublic = agreementKeyTemplate();
    const TPM2B_DATA outsideInfo{};
    const TPML_PCR_SELECTION creationPcrs{};
    TPM2B_PRIVATE *privateArea = nullptr;
    TPM2B_PUBLIC *publicArea = nullptr;
    const TSS2_RC rc = Esys_Create(tpm.esys(), storageKey.get(), ESYS_TR_PASSWORD, ESYS_TR_NONE,
                                   ESYS_TR_NONE, &sensitive, &inPublic, &outsideInfo,
                                   &creationPcrs, &privateArea, &publicArea, nullptr, nullptr,
                                   nullptr);
    const EsysOwned<TPM2B_PRIVATE> ownedPrivate(privateArea);
    const EsysOwned<TPM2B_PUBLIC> ownedPublic(publicArea);
    check(rc);

    const TPMS_ECC_POINT &point = publicArea->publicArea.unique.ecc;
    return Key{marshal(*publicArea, *privateArea), coordinate(point.x) + coordinate(point.y)};
}

QByteArray Tpm::sharedSecret(const QByteArray &handle, const QByteArray &peerRawPublicKey) const
{
    const std::optional<Blob> blob = unmarshal(handle);
    if (!blob)
        throw TpmError::otherComputer();
    if (peerRawPublicKey.size() != 2 * coordinateSize)
        throw TpmError::failed(TSS2_ESYS_RC_BAD_VALUE);

    const Connection tpm(m_tcti);
    Transient storageKey(tpm);
    createStorageKey(tpm, storageKey);
    Transient key(tpm);
    const TSS2_RC loaded = Esys_Load(tpm.esys(), storageKey.get(), ESYS_TR_PASSWORD, ESYS_TR_NONE,
                                     ESYS_TR_NONE, &blob->privateArea, &blob->publicArea,
                                     key.out());
    if (loaded != TSS2_RC_SUCCESS && isForeignBlob(loaded)) {
        qCInfo(lcTpm, "The key does not load in this TPM: 0x%x %s", loaded,
               Tss2_RC_Decode(loaded));
        throw TpmError::otherComputer();
    }
    check(loaded);

    // The answer crosses the bus between the processor and a TPM chip, where it can be
    // read: a session salted with the storage key encrypts it on the way.
    Transient session(tpm);
    TPMT_SYM_DEF aes{};
    aes.algorithm = TPM2_ALG_AES;
    aes.keyBits.aes = 128;
    aes.mode.aes = TPM2_ALG_CFB;
    check(Esys_StartAuthSession(tpm.esys(), storageKey.get(), ESYS_TR_NONE, ESYS_TR_NONE,
                                ESYS_TR_NONE, ESYS_TR_NONE, nullptr, TPM2_SE_HMAC, &aes,
                                TPM2_ALG_SHA256, session.out()));
    check(Esys_TRSess_SetAttributes(tpm.esys(), session.get(),
                                    TPMA_SESSION_ENCRYPT | TPMA_SESSION_CONTINUESESSION, 0xff));

    TPM2B_ECC_POINT peer{};
    peer.point.x.size = coordinateSize;
    peer.point.y.size = coordinateSize;
    std::memcpy(peer.point.x.buffer, peerRawPublicKey.constData(), coordinateSize);
    std::memcpy(peer.point.y.buffer, peerRawPublicKey.constData() + coordinateSize,
                coordinateSize);
    TPM2B_ECC_POINT *product = nullptr;
    const TSS2_RC rc = Esys_ECDH_ZGen(tpm.esys(), key.get(), ESYS_TR_PASSWORD, session.get(),
                                      ESYS_TR_NONE, &peer, &product);
    const std::unique_ptr<TPM2B_ECC_POINT, WipeAndFree> owned(product);
    check(rc);
    return coordinate(product->point.x);
}
