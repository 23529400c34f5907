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
    void entriesAreWellFormed()
    {
        // The pinned values themselves live in one place, the catalogue; what must hold for
        // every entry is checked here.
        const QList<ModelSpec> &catalogue = ModelCatalogue::entries();
        QCOMPARE(catalogue.size(), 16);
        QSet<QString> ids, files;
        const QRegularExpression digest(QStringLiteral("^[0-9a-f]{64}$"));
        const QRegularExpression address(QStringLiteral("^[^/]+/[^/]+/resolve/[0-9a-f]{40}/[^/]+$"));
        for (const ModelSpec &spec : catalogue) {
            ids.insert(spec.id);
            files.insert(spec.fileName);
            QVERIFY2(digest.match(spec.sha256).hasMatch(), qPrintable(spec.id));
            QVERIFY2(address.match(spec.url).hasMatch(), qPrintable(spec.url));
            QVERIFY(spec.byteCount > 0);
            QVERIFY(!spec.name.isEmpty());
            if (spec.role == Role::Chat)
                QVERIFY2(ModelCatalogue::projectorOf(spec).has_value(), qPrintable(spec.id));
        }
        QCOMPARE(ids.size(), 16);
        QCOMPARE(files.size(), 16);
        QCOMPARE(catalogue.first().id, QStringLiteral("qwen-0.8b"));
        QCOMPARE(catalogue.at(1).id, QStringLiteral("whisper-base"));
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
