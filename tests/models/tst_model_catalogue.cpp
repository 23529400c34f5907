// The built-in catalogue and the choices made from it: which models are in use, which are
// missing, what an installation downloads and what a removal takes along.
#include "models/model_catalogue.h"
#include "models/model_selection.h"

#include <QRegularExpression>
#include <QTest>

namespace {

using Role = ModelSpec::Role;

QList<ModelSpec> specsOf(const QString &ids)
{
    QList<ModelSpec> specs;
    for (const QString &id : ids.split(QLatin1Char(' '), Qt::SkipEmptyParts))
        specs.append(ModelCatalogue::find(id).value());
    return specs;
}

QString idsOf(const QList<ModelSpec> &specs)
{
    QStringList ids;
    for (const ModelSpec &spec : specs)
        ids.append(spec.id);
    return ids.join(QLatin1Char(' '));
}

} // namespace

class TestModelCatalogue : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void entriesAreWellFormed()
    {
        // The pinned values themselves live in one place, the catalogue; what must hold for
        // every entry is checked here.
        qunsetenv("CORVANE_MODEL_MIRROR");
        const QList<ModelSpec> &catalogue = ModelCatalogue::entries();
        QSet<QString> ids, files;
        const QRegularExpression digest(QStringLiteral("^[0-9a-f]{64}$"));
        const QRegularExpression address(QStringLiteral("^https://huggingface.co/[^/]+/[^/]+/resolve/[0-9a-f]{40}/[^/]+$"));
        for (const ModelSpec &spec : catalogue) {
            ids.insert(spec.id);
            files.insert(spec.fileName);
            QVERIFY2(digest.match(spec.sha256).hasMatch(), qPrintable(spec.id));
            QVERIFY2(address.match(ModelCatalogue::downloadUrl(spec).toString()).hasMatch(), qPrintable(spec.url));
            QVERIFY(spec.byteCount > 0);
            QVERIFY(!spec.name.isEmpty());
            if (spec.role == Role::Chat)
                QVERIFY2(ModelCatalogue::projectorOf(spec).has_value(), qPrintable(spec.id));
        }
        QCOMPARE(ids.size(), catalogue.size());
        QCOMPARE(files.size(), catalogue.size());
    }

    void mirror_data()
    {
        QTest::addColumn<QByteArray>("mirror");
        QTest::addColumn<QString>("base"); // the address is base + the entry's path; none when empty
        QTest::newRow("empty means none") << QByteArray("") << "https://huggingface.co/";
        QTest::newRow("mirror") << QByteArray("http://127.0.0.1:8080/") << "http://127.0.0.1:8080/";
        QTest::newRow("path without final slash") << QByteArray("https://mirror.example/hf") << "https://mirror.example/hf/";
        QTest::newRow("not http") << QByteArray("ftp://mirror.example/") << "";
        QTest::newRow("without a host") << QByteArray("models/") << "";
        QTest::newRow("broken port") << QByteArray("http://127.0.0.1:99999/") << "";
    }

    void mirror()
    {
        QFETCH(QByteArray, mirror);
        QFETCH(QString, base);
        qputenv("CORVANE_MODEL_MIRROR", mirror);
        const ModelSpec entry = ModelCatalogue::entries().first();
        QCOMPARE(ModelCatalogue::downloadUrl(entry).toString(), base.isEmpty() ? QString() : base + entry.url);
        qunsetenv("CORVANE_MODEL_MIRROR");
    }

    void choices_data()
    {
        // Ids are separated by spaces.
        QTest::addColumn<QString>("choice");
        QTest::addColumn<QString>("given"); // the selected, requested or removed ids
        QTest::addColumn<QString>("installed");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const char *choice, const char *given, const char *installed,
                            const char *expected) {
            QTest::newRow(name) << QString(choice) << QString(given) << QString(installed) << QString(expected);
        };
        row("projector of a plain model", "projector", "qwen-2b", "", "qwen-2b-vision");
        row("abliterated pairs with the plain projector", "projector", "qwen-9b-abliterated", "", "qwen-9b-vision");
        row("dictation model has no projector", "projector", "whisper-base", "", "");
        row("a projector has none", "projector", "qwen-4b-vision", "", "");

        row("chat model selected and installed", "chat", "qwen-4b", "qwen-0.8b qwen-4b", "qwen-4b");
        row("chat model falls back in catalogue order", "chat", "qwen-9b", "qwen-2b qwen-0.8b", "qwen-0.8b");
        row("plain before abliterated", "chat", "qwen-4b", "qwen-0.8b-abliterated qwen-9b", "qwen-9b");
        row("a projector is no chat model", "chat", "", "qwen-2b-vision", "");
        row("no chat model installed", "chat", "qwen-0.8b", "", "");
        row("dictation falls back", "dictation", "whisper-base", "whisper-small whisper-tiny qwen-0.8b", "whisper-tiny");

        row("missing: everything", "missing", "qwen-0.8b", "", "qwen-0.8b qwen-0.8b-vision whisper-base");
        row("missing: any dictation model will do", "missing", "", "whisper-small", "qwen-0.8b qwen-0.8b-vision");
        row("missing: projector of the model in use, not of the stale selection", "missing", "qwen-0.8b",
            "qwen-4b whisper-tiny", "qwen-4b-vision");
        row("missing: abliterated uses the plain projector", "missing", "qwen-2b-abliterated",
            "qwen-2b-abliterated qwen-2b-vision whisper-base", "");
        row("missing: starter's projector already there", "missing", "", "qwen-0.8b-vision", "qwen-0.8b whisper-base");
        row("missing: another model's projector does not count", "missing", "qwen-9b", "qwen-9b qwen-0.8b-vision",
            "qwen-9b-vision whisper-base");

        row("install: projector already there", "install", "qwen-2b-abliterated", "qwen-2b-vision", "qwen-2b-abliterated");
        row("install: projector only", "install", "qwen-4b", "qwen-4b", "qwen-4b-vision");
        row("install: everything there", "install", "qwen-4b", "qwen-4b qwen-4b-vision", "");
        row("install: a projector asked for itself", "install", "qwen-2b-vision", "", "qwen-2b-vision");
        row("install: shared projector fetched once", "install", "qwen-2b qwen-2b-abliterated", "",
            "qwen-2b qwen-2b-vision qwen-2b-abliterated");

        row("remove: last user of the projector", "remove", "qwen-2b", "qwen-2b qwen-2b-vision qwen-4b", "qwen-2b-vision");
        row("remove: abliterated sibling keeps it", "remove", "qwen-2b", "qwen-2b qwen-2b-abliterated qwen-2b-vision", "");
        row("remove: plain sibling keeps it", "remove", "qwen-9b-abliterated", "qwen-9b qwen-9b-abliterated qwen-9b-vision", "");
        row("remove: file already gone", "remove", "qwen-2b", "qwen-2b-vision", "qwen-2b-vision");
        row("remove: projector not installed", "remove", "qwen-2b", "qwen-2b", "");
        row("remove: dictation model", "remove", "whisper-base", "whisper-base", "");
        row("remove: a projector takes nothing", "remove", "qwen-2b-vision", "qwen-2b-vision", "");
    }

    void choices()
    {
        QFETCH(QString, choice);
        QFETCH(QString, given);
        QFETCH(QString, installed);
        QFETCH(QString, expected);
        const QList<ModelSpec> &all = ModelCatalogue::entries();
        const QStringList installedIDs = installed.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        const QSet<QString> have(installedIDs.begin(), installedIDs.end());
        std::optional<ModelSpec> one;
        QList<ModelSpec> result;
        if (choice == QLatin1String("projector"))
            one = ModelCatalogue::projectorOf(specsOf(given).value(0));
        else if (choice == QLatin1String("chat") || choice == QLatin1String("dictation"))
            one = ModelSelection::chosen(
                ModelSelection::installed(all, have, choice == QLatin1String("chat") ? Role::Chat : Role::Transcription),
                given);
        else if (choice == QLatin1String("missing"))
            result = ModelSelection::missing(all, have, given);
        else if (choice == QLatin1String("install"))
            result = ModelSelection::installWorkList(specsOf(given), all, have);
        else
            one = ModelSelection::projectorToRemove(specsOf(given).value(0), all, have);
        if (one)
            result = {*one};
        QCOMPARE(idsOf(result), expected);
    }

    void projectorRemovesEveryAbliteratedMark()
    {
        ModelSpec chat, vision;
        chat.id = QStringLiteral("m-abliterated-1b-abliterated");
        vision.id = QStringLiteral("m-1b-vision");
        vision.role = Role::Vision;
        QCOMPARE(ModelCatalogue::projectorOf(chat, {chat, vision}).value_or(ModelSpec()).id, vision.id);
    }
};

QTEST_GUILESS_MAIN(TestModelCatalogue)
#include "tst_model_catalogue.moc"
