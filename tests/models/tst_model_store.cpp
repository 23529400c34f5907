// Downloads and installations against a real HTTP server on 127.0.0.1 that serves generated
// files and misbehaves on purpose. Every rejected file must leave the models folder as it was
// and no temporary file behind.
#include "models/model_store.h"
#include "models/model_texts.h"
#include "models/progress_download.h"

#include "../../tools/model_file_server.h"

#include <QCryptographicHash>
#include <QDir>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <QCoro/QCoroTask>

namespace {

constexpr qint64 MiB = 1024 * 1024;

QByteArray randomBytes(qint64 size, quint32 seed)
{
    QByteArray data(size, Qt::Uninitialized);
    QRandomGenerator generator(seed);
    for (qint64 i = 0; i < size; ++i)
        data[i] = char(generator.generate() & 0xff);
    return data;
}

void writeFile(const QString &path, const QByteArray &data)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(file.write(data), qint64(data.size()));
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

ModelSpec specFor(const QString &id, ModelSpec::Role role, const QByteArray &content, const QString &remote)
{
    ModelSpec spec;
    spec.id = id;
    spec.name = id + QStringLiteral(" model");
    spec.fileName = id + QStringLiteral(".gguf");
    spec.url = QStringLiteral("repo/resolve/0123/") + remote;
    spec.byteCount = content.size();
    spec.sha256 = QString::fromLatin1(QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex());
    spec.role = role;
    return spec;
}

/// Every file of a folder with its contents, to see that nothing changed.
QMap<QString, QByteArray> snapshot(const QString &folder)
{
    QMap<QString, QByteArray> files;
    const QStringList names = QDir(folder).entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot);
    for (const QString &name : names)
        files.insert(name, QCryptographicHash::hash(readFile(QDir(folder).filePath(name)), QCryptographicHash::Sha256));
    return files;
}

/// How a coroutine ended: "ok", or the error's class and description.
struct Ending
{
    QString kind;
    QString text;
};

QCoro::Task<Ending> capture(QCoro::Task<> task)
{
    try {
        co_await std::move(task);
        co_return Ending{QStringLiteral("ok"), {}};
    } catch (const ModelStoreError &error) {
        co_return Ending{QStringLiteral("ModelStoreError"), error.description()};
    } catch (const CancelledError &error) {
        co_return Ending{QStringLiteral("CancelledError"), error.description()};
    } catch (const SystemError &error) {
        co_return Ending{QStringLiteral("SystemError"), error.description()};
    } catch (const std::exception &error) {
        co_return Ending{QStringLiteral("other"), QString::fromUtf8(error.what())};
    }
}

Ending outcome(QCoro::Task<> task)
{
    return QCoro::waitFor(capture(std::move(task)));
}

template<typename T>
QCoro::Task<> ignoringResult(QCoro::Task<T> task, T *result)
{
    *result = co_await std::move(task);
}

} // namespace

class TestModelStore : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_root;
    std::unique_ptr<ModelFileServer> m_server;
    QString m_tmp; // TMPDIR of this process: must be empty after every test
    QString m_models;
    QByteArray m_model; // 2.5 MiB
    QByteArray m_projector; // 1.25 MiB
    ModelSpec m_chat;
    ModelSpec m_vision;
    QList<ModelSpec> m_catalogue;

    QString files(const QString &name) const { return m_root.filePath(QStringLiteral("files/") + name); }

    void serve(const QString &remote, const QByteArray &content)
    {
        writeFile(files(remote), content);
        m_server->serveFile(QStringLiteral("/repo/resolve/0123/") + remote, files(remote));
    }

    QStringList temporaryFiles() const { return QDir(m_tmp).entryList(QDir::Files | QDir::NoDotAndDotDot); }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_root.isValid());
        QVERIFY(QDir(m_root.path()).mkpath(QStringLiteral("files")));
        m_tmp = m_root.filePath(QStringLiteral("tmp"));
        QVERIFY(QDir().mkpath(m_tmp));
        qputenv("TMPDIR", m_tmp.toUtf8());
        QCOMPARE(QDir::tempPath(), m_tmp);

        m_model = randomBytes(5 * MiB / 2, 1);
        m_projector = randomBytes(5 * MiB / 4, 2);
        // Ids of the real catalogue, so pairing works as in the application.
        m_chat = specFor(QStringLiteral("qwen-2b-abliterated"), ModelSpec::Role::Chat, m_model, QStringLiteral("model.gguf"));
        m_vision = specFor(QStringLiteral("qwen-2b-vision"), ModelSpec::Role::Vision, m_projector,
                           QStringLiteral("mmproj.gguf"));
        m_catalogue = {m_chat, m_vision};
    }

    void init()
    {
        m_server = std::make_unique<ModelFileServer>();
        qputenv("CORVANE_MODEL_MIRROR", m_server->base().toUtf8());
        serve(QStringLiteral("model.gguf"), m_model);
        serve(QStringLiteral("mmproj.gguf"), m_projector);
        m_models = m_root.filePath(QStringLiteral("Models-") + QString::fromLatin1(QTest::currentTestFunction()));
        QDir(m_models).removeRecursively();
    }

    void cleanup()
    {
        QCOMPARE(temporaryFiles(), QStringList());
        m_server.reset();
    }

    void download_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("text"); // network failures keep Qt's own words
        QTest::newRow("good file behind a redirect") << "redirect" << "ok" << "";
        QTest::newRow("good file behind two redirects") << "redirect twice" << "ok" << "";
        QTest::newRow("404") << "missing" << "ModelStoreError" << "Model download failed";
        QTest::newRow("redirect to a 404") << "redirect to missing" << "ModelStoreError" << "Model download failed";
        QTest::newRow("server error") << "status 500" << "ModelStoreError" << "Model download failed";
        QTest::newRow("truncated body with its length") << "truncated" << "SystemError" << "Connection closed";
        QTest::newRow("truncated body without a length")
            << "truncated, no length" << "ModelStoreError" << "Downloaded model has the wrong size";
        QTest::newRow("complete but short file")
            << "short file" << "ModelStoreError" << "Downloaded model has the wrong size";
        QTest::newRow("right size, wrong content")
            << "wrong content" << "ModelStoreError" << "Downloaded model failed its SHA-256 check";
        QTest::newRow("dropped connection") << "reset" << "SystemError" << "Connection closed";
        QTest::newRow("nobody listening") << "refused" << "SystemError" << "Connection refused";
        QTest::newRow("mirror is not a web address") << "bad mirror" << "ModelStoreError" << "Invalid model URL";
    }

    void download()
    {
        QFETCH(QString, setup);
        QFETCH(QString, kind);
        QFETCH(QString, text);
        const QString path = QStringLiteral("/repo/resolve/0123/model.gguf");
        const QString source = files(QStringLiteral("model.gguf"));
        if (setup == QLatin1String("redirect")) {
            m_server->redirect(path, QStringLiteral("/storage/blob"));
            m_server->serveFile(QStringLiteral("/storage/blob"), source);
        } else if (setup == QLatin1String("redirect twice")) {
            m_server->redirect(path, m_server->base() + QStringLiteral("hop"), 301);
            m_server->redirect(QStringLiteral("/hop"), QStringLiteral("/storage/blob"), 307);
            m_server->serveFile(QStringLiteral("/storage/blob"), source);
        } else if (setup == QLatin1String("missing")) {
            m_server = std::make_unique<ModelFileServer>();
            qputenv("CORVANE_MODEL_MIRROR", m_server->base().toUtf8());
        } else if (setup == QLatin1String("redirect to missing")) {
            m_server->redirect(path, QStringLiteral("/nowhere"));
        } else if (setup == QLatin1String("status 500")) {
            m_server->redirect(path, QString(), 500);
        } else if (setup == QLatin1String("truncated")) {
            m_server->cutShort(path, source, MiB + 7, ModelFileServer::Ending::CloseEarly);
        } else if (setup == QLatin1String("truncated, no length")) {
            m_server->cutShort(path, source, MiB + 7, ModelFileServer::Ending::CloseEarly, false);
        } else if (setup == QLatin1String("short file")) {
            const QString shorter = files(QStringLiteral("short.gguf"));
            writeFile(shorter, m_model.left(m_model.size() - 1));
            m_server->serveFile(path, shorter);
        } else if (setup == QLatin1String("wrong content")) {
            const QString other = files(QStringLiteral("other.gguf"));
            QByteArray content = m_model;
            content[content.size() / 2] = char(content.at(content.size() / 2) ^ 1);
            writeFile(other, content);
            m_server->serveFile(path, other);
        } else if (setup == QLatin1String("reset")) {
            m_server->cutShort(path, source, MiB / 2, ModelFileServer::Ending::Reset);
        } else if (setup == QLatin1String("refused")) {
            const QString base = m_server->base();
            m_server.reset();
            qputenv("CORVANE_MODEL_MIRROR", base.toUtf8());
        } else if (setup == QLatin1String("bad mirror")) {
            qputenv("CORVANE_MODEL_MIRROR", "file:///srv/models/");
        }

        ModelStore store(m_models, m_catalogue);
        // An older copy of the model is installed: a rejected download must not replace it.
        const QByteArray old = randomBytes(m_model.size(), 99);
        writeFile(store.filePath(m_chat), old);
        QVERIFY(store.isInstalled(m_chat));
        const auto before = snapshot(m_models);

        const Ending ending = outcome(store.install(m_chat));
        QCOMPARE(ending.kind, kind);
        QCOMPARE(ending.text, text);

        if (kind == QLatin1String("ok")) {
            QCOMPARE(readFile(store.filePath(m_chat)), m_model);
            QCOMPARE(QDir(m_models).entryList(QDir::Files | QDir::Hidden), QStringList{m_chat.fileName});
        } else {
            QCOMPARE(snapshot(m_models), before);
        }
    }

    void progressReports_data()
    {
        QTest::addColumn<qint64>("size");
        QTest::addColumn<int>("reports");
        QTest::newRow("empty") << qint64(0) << 0;
        QTest::newRow("one byte short of a MiB") << qint64(1048575) << 0;
        QTest::newRow("exactly one MiB") << MiB << 1;
        QTest::newRow("3 MiB") << 3 * MiB << 3;
        QTest::newRow("3 MiB and a bit") << 3 * MiB + 1000 << 3;
    }

    void progressReports()
    {
        QFETCH(qint64, size);
        QFETCH(int, reports);
        const QByteArray content = randomBytes(size, 7);
        serve(QStringLiteral("sized.bin"), content);
        QList<qint64> seen;
        QString path;
        const QUrl url(m_server->base() + QStringLiteral("repo/resolve/0123/sized.bin"));
        const Ending ending = outcome(ignoringResult(
            ProgressDownload::run(url, [&seen](qint64 written) { seen.append(written); }), &path));
        QCOMPARE(ending.kind, QStringLiteral("ok"));
        QCOMPARE(readFile(path), content);
        QFile::remove(path);
        QCOMPARE(seen.size(), reports);
        for (int i = 0; i < seen.size(); ++i) {
            QVERIFY(seen.at(i) >= (i + 1) * MiB);
            QVERIFY(seen.at(i) < (i + 2) * MiB);
        }
    }

    void cancelDuringTransfer()
    {
        // The server sends half the file and then holds the connection open: only aborting the
        // transfer can end the wait.
        const QString path = QStringLiteral("/repo/resolve/0123/model.gguf");
        m_server->cutShort(path, files(QStringLiteral("model.gguf")), 3 * MiB / 2, ModelFileServer::Ending::Hang);
        ModelStore store(m_models, m_catalogue);
        CancellationToken cancel;
        QList<qint64> seen;
        const auto progress = [&seen, cancel](qint64 written) {
            seen.append(written);
            cancel.cancel();
        };
        QElapsedTimer clock;
        clock.start();
        const Ending ending = outcome(store.install(m_chat, progress, cancel));
        QCOMPARE(ending.kind, QStringLiteral("CancelledError"));
        QCOMPARE(ending.text, QStringLiteral("Stopped"));
        QCOMPARE(seen.size(), 1);
        QVERIFY(clock.elapsed() < 10000);
        QVERIFY(!QFile::exists(store.filePath(m_chat)));
    }

    void cancelFromOutside()
    {
        m_server->cutShort(QStringLiteral("/repo/resolve/0123/model.gguf"), files(QStringLiteral("model.gguf")), MiB,
                           ModelFileServer::Ending::Hang);
        ModelStore store(m_models, m_catalogue);
        CancellationToken cancel;
        QTimer::singleShot(300, [cancel] { cancel.cancel(); });
        const Ending ending = outcome(store.install(m_chat, {}, cancel));
        QCOMPARE(ending.kind, QStringLiteral("CancelledError"));
    }

    void cancelledBeforeStart()
    {
        ModelStore store(m_models, m_catalogue);
        CancellationToken cancel;
        cancel.cancel();
        QCOMPARE(outcome(store.install(m_chat, {}, cancel)).kind, QStringLiteral("CancelledError"));
        QCOMPARE(m_server->requests(), QStringList());
    }

    void modelThenProjector()
    {
        ModelStore store(m_models, m_catalogue);
        const QList<ModelSpec> work = store.installWorkList({m_chat});
        QCOMPARE(work, (QList<ModelSpec>{m_chat, m_vision}));
        for (const ModelSpec &spec : work)
            QCOMPARE(outcome(store.install(spec)).kind, QStringLiteral("ok"));
        QCOMPARE(m_server->requests(),
                 (QStringList{"/repo/resolve/0123/model.gguf", "/repo/resolve/0123/mmproj.gguf"}));
        QVERIFY(store.isInstalled(m_chat));
        QVERIFY(store.isInstalled(m_vision));
        QCOMPARE(ModelTexts::ready(work), QStringLiteral("Models ready"));
        QCOMPARE(store.installWorkList({m_chat}), QList<ModelSpec>());
    }

    void wrongContentStopsTheWorkList()
    {
        QByteArray content = m_model;
        content[0] = char(content.at(0) ^ 0x80);
        serve(QStringLiteral("model.gguf"), content);
        ModelStore store(m_models, m_catalogue);
        Ending ending{QStringLiteral("ok"), {}};
        for (const ModelSpec &spec : store.installWorkList({m_chat})) {
            ending = outcome(store.install(spec));
            if (ending.kind != QLatin1String("ok"))
                break;
        }
        QCOMPARE(ending.text, QStringLiteral("Downloaded model failed its SHA-256 check"));
        QCOMPARE(m_server->requests(), QStringList{"/repo/resolve/0123/model.gguf"});
        QCOMPARE(snapshot(m_models), (QMap<QString, QByteArray>()));
        serve(QStringLiteral("model.gguf"), m_model);
    }

    void isInstalled_data()
    {
        QTest::addColumn<qint64>("sizeChange");
        QTest::addColumn<bool>("expected");
        QTest::newRow("exact size") << qint64(0) << true;
        QTest::newRow("one byte short") << qint64(-1) << false;
        QTest::newRow("one byte long") << qint64(1) << false;
    }

    void isInstalled()
    {
        QFETCH(qint64, sizeChange);
        QFETCH(bool, expected);
        ModelStore store(m_models, m_catalogue);
        QVERIFY(!store.isInstalled(m_chat));
        // Same-size files are trusted whatever they hold: the digest was checked on the way in.
        writeFile(store.filePath(m_chat), randomBytes(m_chat.byteCount + sizeChange, 5));
        QCOMPARE(store.isInstalled(m_chat), expected);
        QCOMPARE(store.installedIDs().contains(m_chat.id), expected);
        store.remove(m_chat);
        QVERIFY(!QFile::exists(store.filePath(m_chat)));
        store.remove(m_chat);
    }

    void installFromFile_data()
    {
        QTest::addColumn<QString>("content");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("expected");
        QTest::newRow("match under another name") << "model" << "download (1).bin" << "qwen-2b-abliterated";
        QTest::newRow("projector match") << "projector" << "mmproj-F16.gguf" << "qwen-2b-vision";
        QTest::newRow("no match") << "other size" << "notes.txt" << "This file is not one of Corvane's models";
        QTest::newRow("same size, other content")
            << "same size" << "notes.txt" << "This file is not one of Corvane's models";
        QTest::newRow("model's name, wrong size")
            << "other size" << "qwen-2b-abliterated.gguf" << "Downloaded model has the wrong size";
        QTest::newRow("model's name, wrong content")
            << "same size" << "qwen-2b-abliterated.gguf" << "Downloaded model failed its SHA-256 check";
    }

    void installFromFile()
    {
        QFETCH(QString, content);
        QFETCH(QString, name);
        QFETCH(QString, expected);
        QByteArray data;
        if (content == QLatin1String("model"))
            data = m_model;
        else if (content == QLatin1String("projector"))
            data = m_projector;
        else if (content == QLatin1String("same size"))
            data = randomBytes(m_model.size(), 11);
        else
            data = randomBytes(MiB + 3, 12);
        const QString user = m_root.filePath(QStringLiteral("user"));
        QVERIFY(QDir().mkpath(user));
        const QString source = QDir(user).filePath(name);
        writeFile(source, data);

        ModelStore store(m_models, m_catalogue);
        QList<qint64> seen;
        ModelSpec installed;
        const Ending ending = outcome(ignoringResult(
            store.installFromFile(source, [&seen](qint64 n) { seen.append(n); }), &installed));
        if (expected.startsWith(QLatin1String("qwen-"))) {
            QCOMPARE(ending.kind, QStringLiteral("ok"));
            QCOMPARE(installed.id, expected);
            QCOMPARE(readFile(store.filePath(installed)), data);
            QVERIFY2(!QFile::exists(source), "same file system: renamed");
            // One report per 1 MiB block read, the last one at the end of the file.
            QCOMPARE(seen.size(), int((data.size() + MiB - 1) / MiB));
            QCOMPARE(seen.last(), qint64(data.size()));
        } else {
            QCOMPARE(ending.text, expected);
            QCOMPARE(snapshot(m_models), (QMap<QString, QByteArray>()));
            QVERIFY(QFile::exists(source));
            QFile::remove(source);
        }
    }

    void acrossFileSystems_data()
    {
        QTest::addColumn<bool>("download");
        QTest::newRow("download with the temporary folder elsewhere") << true;
        QTest::newRow("install from a file elsewhere") << false;
    }

    void acrossFileSystems()
    {
        QFETCH(bool, download);
        // /dev/shm is a separate memory file system on Linux: a rename into the models folder
        // fails there and the copy must take over.
        QTemporaryDir elsewhere(QStringLiteral("/dev/shm/corvane-test-XXXXXX"));
        if (!elsewhere.isValid())
            QSKIP("no second file system at /dev/shm");
        ModelStore store(m_models, m_catalogue);
        if (download) {
            qputenv("TMPDIR", elsewhere.path().toUtf8());
            const Ending ending = outcome(store.install(m_chat));
            qputenv("TMPDIR", m_tmp.toUtf8());
            QCOMPARE(ending.kind, QStringLiteral("ok"));
            QCOMPARE(QDir(elsewhere.path()).entryList(QDir::Files), QStringList());
        } else {
            const QString source = elsewhere.filePath(QStringLiteral("model.gguf"));
            writeFile(source, m_model);
            ModelSpec installed;
            QCOMPARE(outcome(ignoringResult(store.installFromFile(source), &installed)).kind, QStringLiteral("ok"));
            QVERIFY2(QFile::exists(source), "a copy leaves the user's file where it was");
        }
        QCOMPARE(readFile(store.filePath(m_chat)), m_model);
        QCOMPARE(QDir(m_models).entryList(QDir::Files | QDir::Hidden), QStringList{m_chat.fileName});
    }
};

QTEST_GUILESS_MAIN(TestModelStore)
#include "tst_model_store.moc"
