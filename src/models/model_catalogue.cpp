#include "models/model_catalogue.h"

namespace {

const QString defaultBase = QStringLiteral("https://huggingface.co/");

struct Revision
{
    const char *repository;
    const char *commit;
};

// Each repository is pinned to one commit, so a given link always names the same bytes.
constexpr Revision qwen08b{"unsloth/Qwen3.5-0.8B-GGUF", "6ab461498e2023f6e3c1baea90a8f0fe38ab64d0"};
constexpr Revision qwen2b{"unsloth/Qwen3.5-2B-GGUF", "f6d5376be1edb4d416d56da11e5397a961aca8ae"};
constexpr Revision qwen4b{"unsloth/Qwen3.5-4B-GGUF", "e87f176479d0855a907a41277aca2f8ee7a09523"};
constexpr Revision qwen9b{"unsloth/Qwen3.5-9B-GGUF", "3885219b6810b007914f3a7950a8d1b469d598a5"};
constexpr Revision abliterated08b{"mradermacher/Huihui-Qwen3.5-0.8B-abliterated-GGUF",
                                  "2fabc82874616f44cdc494ec8ddc0e8ee10654b3"};
constexpr Revision abliterated2b{"mradermacher/Huihui-Qwen3.5-2B-abliterated-GGUF",
                                 "f36848fead3fdda244cf60195c46993d23183d4c"};
constexpr Revision abliterated4b{"mradermacher/Huihui-Qwen3.5-4B-abliterated-GGUF",
                                 "4a5daa6fbefca5fe822dc65fcb95cc4576fa9720"};
constexpr Revision abliterated9b{"mradermacher/Huihui-Qwen3.5-9B-abliterated-GGUF",
                                 "9f646d7eda193ddf2348134f3bff3d49eed7a2c6"};
constexpr Revision whisper{"ggerganov/whisper.cpp", "5359861c739e955e79d9a303bcbc70fb988958b1"};

/// `remote` is the name on the hosting service when it differs from the local file name (the
/// four projectors share one remote name).
ModelSpec entry(const char *id, const char *name, ModelSpec::Role role, const char *fileName, qint64 byteCount,
                const char *sha256, Revision revision, const char *remote = nullptr)
{
    ModelSpec spec;
    spec.id = QLatin1String(id);
    spec.name = QLatin1String(name);
    spec.fileName = QLatin1String(fileName);
    spec.url = QLatin1String(revision.repository) + QLatin1String("/resolve/") + QLatin1String(revision.commit)
        + QLatin1Char('/') + QLatin1String(remote ? remote : fileName);
    spec.byteCount = byteCount;
    spec.sha256 = QLatin1String(sha256);
    spec.role = role;
    return spec;
}

QList<ModelSpec> makeCatalogue()
{
    using Role = ModelSpec::Role;
    const char *projector = "mmproj-F16.gguf";
    return {
        entry("qwen-0.8b", "Qwen3.5 0.8B", Role::Chat, "Qwen3.5-0.8B-Q4_K_M.gguf", 532517120,
              "bd258782e35f7f458f8aced1adc053e6e92e89bc735ba3be89d38a06121dc517", qwen08b),
        entry("whisper-base", "Whisper base", Role::Transcription, "ggml-base.bin", 147951465,
              "60ed5bc3dd14eea856493d334349b405782ddcaf0028d4b5df4088345fba2efe", whisper),
        entry("qwen-2b", "Qwen3.5 2B", Role::Chat, "Qwen3.5-2B-Q4_K_M.gguf", 1280835840,
              "aaf42c8b7c3cab2bf3d69c355048d4a0ee9973d48f16c731c0520ee914699223", qwen2b),
        entry("qwen-4b", "Qwen3.5 4B", Role::Chat, "Qwen3.5-4B-Q4_K_M.gguf", 2740937888,
              "00fe7986ff5f6b463e62455821146049db6f9313603938a70800d1fb69ef11a4", qwen4b),
        entry("qwen-9b", "Qwen3.5 9B", Role::Chat, "Qwen3.5-9B-Q4_K_M.gguf", 5680522464,
              "03b74727a860a56338e042c4420bb3f04b2fec5734175f4cb9fa853daf52b7e8", qwen9b),
        entry("qwen-0.8b-abliterated", "Qwen3.5 0.8B abliterated", Role::Chat,
              "Huihui-Qwen3.5-0.8B-abliterated.Q4_K_M.gguf", 527503840,
              "411e0f945a5d57c63f33bcb5bfa4d5c2711d1ce28cb7635201ac0c311a7dfdf0", abliterated08b),
        entry("qwen-2b-abliterated", "Qwen3.5 2B abliterated", Role::Chat,
              "Huihui-Qwen3.5-2B-abliterated.Q4_K_M.gguf", 1270809024,
              "aa25eea787afe56a097268f7ed3460cb623e1901d2e89cd2b654cabb42f80636", abliterated2b),
        entry("qwen-4b-abliterated", "Qwen3.5 4B abliterated", Role::Chat,
              "Huihui-Qwen3.5-4B-abliterated.Q4_K_M.gguf", 2707514688,
              "423f10b6ec2d99c3378143d7cd3b80eb4887b3ed92103103ac59173b404f4f7c", abliterated4b),
        entry("qwen-9b-abliterated", "Qwen3.5 9B abliterated", Role::Chat,
              "Huihui-Qwen3.5-9B-abliterated.Q4_K_M.gguf", 5627045248,
              "ea1858ef4dc4b648b8dbb44612962a0333e945060dd0545ac0f28d7c4416e4b3", abliterated9b),
        entry("whisper-tiny", "Whisper tiny", Role::Transcription, "ggml-tiny.bin", 77691713,
              "be07e048e1e599ad46341c8d2a135645097a538221678b7acdd1b1919c6e1b21", whisper),
        entry("whisper-small", "Whisper small", Role::Transcription, "ggml-small.bin", 487601967,
              "1be3a9b2063867b937e64e2ec7483364a79917e157fa98c5d94b5c1fffea987b", whisper),
        entry("whisper-large-v3-turbo", "Whisper large-v3 turbo", Role::Transcription,
              "ggml-large-v3-turbo-q5_0.bin", 574041195,
              "394221709cd5ad1f40c46e6031ca61bce88931e6e088c188294c6d5a55ffa7e2", whisper),
        entry("qwen-0.8b-vision", "Qwen3.5 0.8B vision", Role::Vision, "Qwen3.5-0.8B-mmproj-F16.gguf", 204987232,
              "56e4c6cfe73b0c82e3e82bc518d7591997e61d81f723fc41a586f4fa69ea2453", qwen08b, projector),
        entry("qwen-2b-vision", "Qwen3.5 2B vision", Role::Vision, "Qwen3.5-2B-mmproj-F16.gguf", 668227264,
              "7035e9cb8d7c6a9681d07eef9a364783e86ea4cd73faab2eabb4f43a101830c7", qwen2b, projector),
        entry("qwen-4b-vision", "Qwen3.5 4B vision", Role::Vision, "Qwen3.5-4B-mmproj-F16.gguf", 672423616,
              "cd88edcf8d031894960bb0c9c5b9b7e1fea6ebee02b9f7ce925a00d12891f864", qwen4b, projector),
        entry("qwen-9b-vision", "Qwen3.5 9B vision", Role::Vision, "Qwen3.5-9B-mmproj-F16.gguf", 918166080,
              "f70dc3509053962b0d0d3ee8a7eacebf5d60aa560cad78254ae8698516ae029f", qwen9b, projector),
    };
}

} // namespace

namespace ModelCatalogue {

const QList<ModelSpec> &entries()
{
    static const QList<ModelSpec> catalogue = makeCatalogue();
    return catalogue;
}

std::optional<ModelSpec> find(const QString &id, const QList<ModelSpec> &catalogue)
{
    for (const ModelSpec &spec : catalogue) {
        if (spec.id == id)
            return spec;
    }
    return std::nullopt;
}

std::optional<ModelSpec> projectorOf(const ModelSpec &spec, const QList<ModelSpec> &catalogue)
{
    if (spec.role == ModelSpec::Role::Vision)
        return std::nullopt;
    QString id = spec.id;
    id.remove(QStringLiteral("-abliterated"));
    id += QStringLiteral("-vision");
    return find(id, catalogue);
}

QString baseAddress()
{
    QString base = qEnvironmentVariable("CORVANE_MODEL_MIRROR");
    if (base.isEmpty())
        return defaultBase;
    // A mirror given without the final slash would otherwise glue its last path segment to
    // the repository name.
    if (!base.endsWith(QLatin1Char('/')))
        base += QLatin1Char('/');
    return base;
}

QUrl downloadUrl(const ModelSpec &spec)
{
    const QUrl url(baseAddress() + spec.url, QUrl::StrictMode);
    const QString scheme = url.scheme();
    if (!url.isValid() || url.host().isEmpty() || (scheme != QLatin1String("http") && scheme != QLatin1String("https")))
        return {};
    return url;
}

} // namespace ModelCatalogue
