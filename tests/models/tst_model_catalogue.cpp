// The built-in catalogue and the choices made from it: which models are in use, which are
// missing, what an installation downloads and what a removal takes along.
#include "models/model_catalogue.h"
#include "models/model_selection.h"
#include "models/model_texts.h"

#include <QRegularExpression>
#include <QTest>

namespace {

using Role = ModelSpec::Role;

QStringList idsOf(const QList<ModelSpec> &specs)
{
    QStringList ids;
    for (const ModelSpec &spec : specs)
        ids.append(spec.id);
    return ids;
}

QList<ModelSpec> specsOf(const QStringList &ids)
{
    QList<ModelSpec> specs;
    for (const QString &id : ids)
        specs.append(ModelCatalogue::find(id).value());
    return specs;
}

QSet<QString> setOf(const QStringList &ids)
{
    return QSet<QString>(ids.begin(), ids.end());
}

QString idOrEmpty(const std::optional<ModelSpec> &spec)
{
    return spec ? spec->id : QString();
}

/// Sets or clears CORVANE_MODEL_MIRROR for one test and puts the old value back.
class MirrorVariable
{
public:
    explicit MirrorVariable(const QByteArray &value)
        : m_had(qEnvironmentVariableIsSet(name))
        , m_old(qgetenv(name))
    {
        if (value.isNull())
            qunsetenv(name);
        else
            qputenv(name, value);
    }
    ~MirrorVariable()
    {
        if (m_had)
            qputenv(name, m_old);
        else
            qunsetenv(name);
    }

private:
    static constexpr const char *name = "CORVANE_MODEL_MIRROR";
    bool m_had;
    QByteArray m_old;
};

} // namespace

class TestModelCatalogue : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void entries_data()
    {
        QTest::addColumn<int>("position");
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("role");
        QTest::addColumn<QString>("fileName");
        QTest::addColumn<qint64>("byteCount");
        QTest::addColumn<QString>("sha256");
        int position = 0;
        const auto row = [&position](const char *id, const char *name, Role role, const char *file, qint64 size,
                                     const char *sha) {
            QTest::newRow(id) << position++ << id << name << int(role) << file << size << sha;
        };
        // In display order: the dictation model "whisper-base" stands second on purpose.
        row("qwen-0.8b", "Qwen3.5 0.8B", Role::Chat, "Qwen3.5-0.8B-Q4_K_M.gguf", 532517120,
            "bd258782e35f7f458f8aced1adc053e6e92e89bc735ba3be89d38a06121dc517");
        row("whisper-base", "Whisper base", Role::Transcription, "ggml-base.bin", 147951465,
            "60ed5bc3dd14eea856493d334349b405782ddcaf0028d4b5df4088345fba2efe");
        row("qwen-2b", "Qwen3.5 2B", Role::Chat, "Qwen3.5-2B-Q4_K_M.gguf", 1280835840,
            "aaf42c8b7c3cab2bf3d69c355048d4a0ee9973d48f16c731c0520ee914699223");
        row("qwen-4b", "Qwen3.5 4B", Role::Chat, "Qwen3.5-4B-Q4_K_M.gguf", 2740937888,
            "00fe7986ff5f6b463e62455821146049db6f9313603938a70800d1fb69ef11a4");
        row("qwen-9b", "Qwen3.5 9B", Role::Chat, "Qwen3.5-9B-Q4_K_M.gguf", 5680522464,
            "03b74727a860a56338e042c4420bb3f04b2fec5734175f4cb9fa853daf52b7e8");
        row("qwen-0.8b-abliterated", "Qwen3.5 0.8B abliterated", Role::Chat,
            "Huihui-Qwen3.5-0.8B-abliterated.Q4_K_M.gguf", 527503840,
            "411e0f945a5d57c63f33bcb5bfa4d5c2711d1ce28cb7635201ac0c311a7dfdf0");
        row("qwen-2b-abliterated", "Qwen3.5 2B abliterated", Role::Chat,
            "Huihui-Qwen3.5-2B-abliterated.Q4_K_M.gguf", 1270809024,
            "aa25eea787afe56a097268f7ed3460cb623e1901d2e89cd2b654cabb42f80636");
        row("qwen-4b-abliterated", "Qwen3.5 4B abliterated", Role::Chat,
            "Huihui-Qwen3.5-4B-abliterated.Q4_K_M.gguf", 2707514688,
            "423f10b6ec2d99c3378143d7cd3b80eb4887b3ed92103103ac59173b404f4f7c");
        row("qwen-9b-abliterated", "Qwen3.5 9B abliterated", Role::Chat,
            "Huihui-Qwen3.5-9B-abliterated.Q4_K_M.gguf", 5627045248,
            "ea1858ef4dc4b648b8dbb44612962a0333e945060dd0545ac0f28d7c4416e4b3");
        row("whisper-tiny", "Whisper tiny", Role::Transcription, "ggml-tiny.bin", 77691713,
            "be07e048e1e599ad46341c8d2a135645097a538221678b7acdd1b1919c6e1b21");
        row("whisper-small", "Whisper small", Role::Transcription, "ggml-small.bin", 487601967,
            "1be3a9b2063867b937e64e2ec7483364a79917e157fa98c5d94b5c1fffea987b");
        row("whisper-large-v3-turbo", "Whisper large-v3 turbo", Role::Transcription, "ggml-large-v3-turbo-q5_0.bin",
            574041195, "394221709cd5ad1f40c46e6031ca61bce88931e6e088c188294c6d5a55ffa7e2");
        row("qwen-0.8b-vision", "Qwen3.5 0.8B vision", Role::Vision, "Qwen3.5-0.8B-mmproj-F16.gguf", 204987232,
            "56e4c6cfe73b0c82e3e82bc518d7591997e61d81f723fc41a586f4fa69ea2453");
        row("qwen-2b-vision", "Qwen3.5 2B vision", Role::Vision, "Qwen3.5-2B-mmproj-F16.gguf", 668227264,
            "7035e9cb8d7c6a9681d07eef9a364783e86ea4cd73faab2eabb4f43a101830c7");
        row("qwen-4b-vision", "Qwen3.5 4B vision", Role::Vision, "Qwen3.5-4B-mmproj-F16.gguf", 672423616,
            "cd88edcf8d031894960bb0c9c5b9b7e1fea6ebee02b9f7ce925a00d12891f864");
        row("qwen-9b-vision", "Qwen3.5 9B vision", Role::Vision, "Qwen3.5-9B-mmproj-F16.gguf", 918166080,
            "f70dc3509053962b0d0d3ee8a7eacebf5d60aa560cad78254ae8698516ae029f");
    }

    void entries()
    {
        QFETCH(int, position);
        QFETCH(QString, id);
        QFETCH(QString, name);
        QFETCH(int, role);
        QFETCH(QString, fileName);
        QFETCH(qint64, byteCount);
        QFETCH(QString, sha256);
        const QList<ModelSpec> &catalogue = ModelCatalogue::entries();
        QCOMPARE(catalogue.size(), 16);
        const ModelSpec &spec = catalogue.at(position);
        QCOMPARE(spec.id, id);
        QCOMPARE(spec.name, name);
        QCOMPARE(int(spec.role), role);
        QCOMPARE(spec.fileName, fileName);
        QCOMPARE(spec.byteCount, byteCount);
        QCOMPARE(spec.sha256, sha256);
    }

    void downloadUrl_data()
    {
        QTest::addColumn<QString>("id");
        QTest::addColumn<QByteArray>("mirror");
        QTest::addColumn<QString>("expected");
        const QByteArray none;
        QTest::newRow("chat model") << "qwen-0.8b" << none
            << "https://huggingface.co/unsloth/Qwen3.5-0.8B-GGUF/resolve/6ab461498e2023f6e3c1baea90a8f0fe38ab64d0/Qwen3.5-0.8B-Q4_K_M.gguf";
        QTest::newRow("projector: shared remote name") << "qwen-9b-vision" << none
            << "https://huggingface.co/unsloth/Qwen3.5-9B-GGUF/resolve/3885219b6810b007914f3a7950a8d1b469d598a5/mmproj-F16.gguf";
        QTest::newRow("abliterated") << "qwen-4b-abliterated" << none
            << "https://huggingface.co/mradermacher/Huihui-Qwen3.5-4B-abliterated-GGUF/resolve/4a5daa6fbefca5fe822dc65fcb95cc4576fa9720/Huihui-Qwen3.5-4B-abliterated.Q4_K_M.gguf";
        QTest::newRow("whisper") << "whisper-large-v3-turbo" << none
            << "https://huggingface.co/ggerganov/whisper.cpp/resolve/5359861c739e955e79d9a303bcbc70fb988958b1/ggml-large-v3-turbo-q5_0.bin";
        QTest::newRow("empty mirror means none") << "whisper-base" << QByteArray("")
            << "https://huggingface.co/ggerganov/whisper.cpp/resolve/5359861c739e955e79d9a303bcbc70fb988958b1/ggml-base.bin";
        QTest::newRow("mirror") << "qwen-2b-vision" << QByteArray("http://127.0.0.1:8080/")
            << "http://127.0.0.1:8080/unsloth/Qwen3.5-2B-GGUF/resolve/f6d5376be1edb4d416d56da11e5397a961aca8ae/mmproj-F16.gguf";
        QTest::newRow("mirror path without final slash") << "whisper-tiny" << QByteArray("https://mirror.example/hf")
            << "https://mirror.example/hf/ggerganov/whisper.cpp/resolve/5359861c739e955e79d9a303bcbc70fb988958b1/ggml-tiny.bin";
        QTest::newRow("mirror that is not http") << "qwen-0.8b" << QByteArray("ftp://mirror.example/") << "";
        QTest::newRow("mirror without a host") << "qwen-0.8b" << QByteArray("models/") << "";
        QTest::newRow("mirror with a broken port") << "qwen-0.8b" << QByteArray("http://127.0.0.1:99999/") << "";
    }

    void downloadUrl()
    {
        QFETCH(QString, id);
        QFETCH(QByteArray, mirror);
        QFETCH(QString, expected);
        const MirrorVariable variable(mirror);
        QCOMPARE(ModelCatalogue::downloadUrl(ModelCatalogue::find(id).value()).toString(), expected);
    }

    void projector_data()
    {
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("projector");
        QTest::newRow("plain") << "qwen-2b" << "qwen-2b-vision";
        QTest::newRow("abliterated pairs with the plain projector") << "qwen-9b-abliterated" << "qwen-9b-vision";
        QTest::newRow("smallest abliterated") << "qwen-0.8b-abliterated" << "qwen-0.8b-vision";
        QTest::newRow("dictation model has none") << "whisper-base" << "";
        QTest::newRow("a projector has none") << "qwen-4b-vision" << "";
    }

    void projector()
    {
        QFETCH(QString, id);
        QFETCH(QString, projector);
        QCOMPARE(idOrEmpty(ModelCatalogue::projectorOf(ModelCatalogue::find(id).value())), projector);
    }

    void projectorRemovesEveryAbliteratedMark()
    {
        ModelSpec chat;
        chat.id = QStringLiteral("m-abliterated-1b-abliterated");
        ModelSpec vision;
        vision.id = QStringLiteral("m-1b-vision");
        vision.role = Role::Vision;
        QCOMPARE(idOrEmpty(ModelCatalogue::projectorOf(chat, {chat, vision})), vision.id);
    }

    void modelInUse_data()
    {
        QTest::addColumn<QStringList>("installed");
        QTest::addColumn<int>("role");
        QTest::addColumn<QString>("selected");
        QTest::addColumn<QString>("expected");
        QTest::newRow("selected and installed") << QStringList{"qwen-0.8b", "qwen-4b"} << int(Role::Chat) << "qwen-4b"
                                                << "qwen-4b";
        QTest::newRow("fall back in catalogue order")
            << QStringList{"qwen-2b", "qwen-0.8b"} << int(Role::Chat) << "qwen-9b" << "qwen-0.8b";
        QTest::newRow("plain before abliterated")
            << QStringList{"qwen-0.8b-abliterated", "qwen-9b"} << int(Role::Chat) << "qwen-4b" << "qwen-9b";
        QTest::newRow("a projector is no chat model") << QStringList{"qwen-2b-vision"} << int(Role::Chat) << "" << "";
        QTest::newRow("nothing installed") << QStringList{} << int(Role::Chat) << "qwen-0.8b" << "";
        QTest::newRow("dictation fall-back")
            << QStringList{"whisper-small", "whisper-tiny", "qwen-0.8b"} << int(Role::Transcription) << "whisper-base"
            << "whisper-tiny";
        QTest::newRow("dictation selected")
            << QStringList{"whisper-base", "whisper-large-v3-turbo"} << int(Role::Transcription)
            << "whisper-large-v3-turbo" << "whisper-large-v3-turbo";
    }

    void modelInUse()
    {
        QFETCH(QStringList, installed);
        QFETCH(int, role);
        QFETCH(QString, selected);
        QFETCH(QString, expected);
        const auto candidates =
            ModelSelection::installed(ModelCatalogue::entries(), setOf(installed), static_cast<Role>(role));
        QCOMPARE(idOrEmpty(ModelSelection::chosen(candidates, selected)), expected);
    }

    void missing_data()
    {
        QTest::addColumn<QStringList>("installed");
        QTest::addColumn<QString>("selected");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("nothing installed")
            << QStringList{} << "qwen-0.8b" << QStringList{"qwen-0.8b", "qwen-0.8b-vision", "whisper-base"};
        QTest::newRow("any dictation model will do")
            << QStringList{"whisper-small"} << "" << QStringList{"qwen-0.8b", "qwen-0.8b-vision"};
        QTest::newRow("only the projector") << QStringList{"qwen-4b", "whisper-tiny"} << "qwen-4b"
                                            << QStringList{"qwen-4b-vision"};
        QTest::newRow("projector of the model in use, not of the stale selection")
            << QStringList{"qwen-4b", "whisper-tiny"} << "qwen-0.8b" << QStringList{"qwen-4b-vision"};
        QTest::newRow("abliterated uses the plain projector")
            << QStringList{"qwen-2b-abliterated", "qwen-2b-vision", "whisper-base"} << "qwen-2b-abliterated"
            << QStringList{};
        QTest::newRow("starter's projector already there")
            << QStringList{"qwen-0.8b-vision"} << "" << QStringList{"qwen-0.8b", "whisper-base"};
        QTest::newRow("another model's projector does not count")
            << QStringList{"qwen-9b", "qwen-0.8b-vision"} << "qwen-9b" << QStringList{"qwen-9b-vision", "whisper-base"};
    }

    void missing()
    {
        QFETCH(QStringList, installed);
        QFETCH(QString, selected);
        QFETCH(QStringList, expected);
        QCOMPARE(idsOf(ModelSelection::missing(ModelCatalogue::entries(), setOf(installed), selected)), expected);
    }

    void installWorkList_data()
    {
        QTest::addColumn<QStringList>("requested");
        QTest::addColumn<QStringList>("installed");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("model then its projector")
            << QStringList{"qwen-2b-abliterated"} << QStringList{} << QStringList{"qwen-2b-abliterated", "qwen-2b-vision"};
        QTest::newRow("projector already there")
            << QStringList{"qwen-2b-abliterated"} << QStringList{"qwen-2b-vision"} << QStringList{"qwen-2b-abliterated"};
        QTest::newRow("projector only") << QStringList{"qwen-4b"} << QStringList{"qwen-4b"}
                                        << QStringList{"qwen-4b-vision"};
        QTest::newRow("everything installed")
            << QStringList{"qwen-4b"} << QStringList{"qwen-4b", "qwen-4b-vision"} << QStringList{};
        QTest::newRow("dictation model alone") << QStringList{"whisper-base"} << QStringList{}
                                               << QStringList{"whisper-base"};
        QTest::newRow("a projector asked for itself")
            << QStringList{"qwen-2b-vision"} << QStringList{} << QStringList{"qwen-2b-vision"};
        QTest::newRow("shared projector fetched once")
            << QStringList{"qwen-2b", "qwen-2b-abliterated"} << QStringList{}
            << QStringList{"qwen-2b", "qwen-2b-vision", "qwen-2b-abliterated"};
        QTest::newRow("the missing set as asked")
            << QStringList{"qwen-0.8b", "qwen-0.8b-vision", "whisper-base"} << QStringList{}
            << QStringList{"qwen-0.8b", "qwen-0.8b-vision", "whisper-base"};
    }

    void installWorkList()
    {
        QFETCH(QStringList, requested);
        QFETCH(QStringList, installed);
        QFETCH(QStringList, expected);
        QCOMPARE(idsOf(ModelSelection::installWorkList(specsOf(requested), ModelCatalogue::entries(), setOf(installed))),
                 expected);
    }

    void projectorToRemove_data()
    {
        QTest::addColumn<QString>("removed");
        QTest::addColumn<QStringList>("installed");
        QTest::addColumn<QString>("expected");
        QTest::newRow("last user of the projector")
            << "qwen-2b" << QStringList{"qwen-2b", "qwen-2b-vision", "qwen-4b"} << "qwen-2b-vision";
        QTest::newRow("abliterated sibling keeps it")
            << "qwen-2b" << QStringList{"qwen-2b", "qwen-2b-abliterated", "qwen-2b-vision"} << "";
        QTest::newRow("plain sibling keeps it")
            << "qwen-9b-abliterated" << QStringList{"qwen-9b", "qwen-9b-abliterated", "qwen-9b-vision"} << "";
        QTest::newRow("file already gone") << "qwen-2b" << QStringList{"qwen-2b-vision"} << "qwen-2b-vision";
        QTest::newRow("projector not installed") << "qwen-2b" << QStringList{"qwen-2b"} << "";
        QTest::newRow("dictation model") << "whisper-base" << QStringList{"whisper-base"} << "";
        QTest::newRow("removing a projector takes nothing")
            << "qwen-2b-vision" << QStringList{"qwen-2b-vision"} << "";
    }

    void projectorToRemove()
    {
        QFETCH(QString, removed);
        QFETCH(QStringList, installed);
        QFETCH(QString, expected);
        const auto projector = ModelSelection::projectorToRemove(ModelCatalogue::find(removed).value(),
                                                                 ModelCatalogue::entries(), setOf(installed));
        QCOMPARE(idOrEmpty(projector), expected);
    }

    void statusTexts()
    {
        const QList<ModelSpec> pair = specsOf({"qwen-2b-abliterated", "qwen-2b-vision"});
        QCOMPARE(ModelTexts::downloading(pair.first()), QString::fromUtf8("Downloading Qwen3.5 2B abliterated\u2026"));
        QCOMPARE(ModelTexts::ready(pair), QStringLiteral("Models ready"));
        QCOMPARE(ModelTexts::ready(pair.mid(1)), QStringLiteral("Qwen3.5 2B vision ready"));
        QCOMPARE(ModelTexts::removed(pair.first()), QStringLiteral("Qwen3.5 2B abliterated removed"));
    }
};

QTEST_GUILESS_MAIN(TestModelCatalogue)
#include "tst_model_catalogue.moc"
