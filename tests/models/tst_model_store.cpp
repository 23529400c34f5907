// Downloads and installations against a real HTTP server on 127.0.0.1 that serves generated
// files and misbehaves on purpose. Every rejected file must leave the models folder as it was
// and no temporary file behind.
#include "models/model_store.h"
#include "support/await_task.h"

#include "../../tools/model_file_server.h"

#include <QCryptographicHash>
#include <QDir>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

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
    return {id, id + QStringLiteral(" model"), id + QStringLiteral(".gguf"), QStringLiteral("repo/resolve/0123/") + remote,
            content.size(), QString::fromLatin1(QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex()), role};
}

/// Every file of a folder with its contents, to see that nothing changed.
QMap<QString, QByteArray> snapshot(const QString &folder)
{
    QMap<QString, QByteArray> files;
    for (const QString &name : QDir(folder).entryList(QDir::Files | QDir::Hidden))
        files.insert(name, readFile(QDir(folder).filePath(name)));
    return files;
}

/// "ok", or the class of what `work` throws and its description.
QString outcome(const std::function<void()> &work)
{
    try {
        work();
        return QStringLiteral("ok");
    } catch (const ModelStoreError &error) {
        return QStringLiteral("ModelStoreError: ") + error.description();
    } catch (const CancelledError &error) {
        return QStringLiteral("CancelledError: ") + error.description();
    } catch (const SystemError &error) {
        return QStringLiteral("SystemError: ") + error.description();
    }
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
        QCOMPARE(QDir(m_tmp).entryList(QDir::Files | QDir::NoDotAndDotDot), QStringList());
        m_server.reset();
    }

    void download_data()
    {
        QTest::addColumn<QString>("setup");
        QTest::addColumn<QString>("expected"); // network failures keep Qt's own words
        QTest::newRow("good file behind two redirects") << "redirects" << "ok";
        QTest::newRow("redirect to a 404") << "missing" << "ModelStoreError: Model download failed";
        QTest::newRow("server error") << "status 500" << "ModelStoreError: Model download failed";
        QTest::newRow("truncated body with its length") << "truncated" << "SystemError: Connection closed";
        QTest::newRow("truncated body without a length")
            << "truncated, no length" << "ModelStoreError: Downloaded model has the wrong size";
        QTest::newRow("complete but short file") << "short" << "ModelStoreError: Downloaded model has the wrong size";
        QTest::newRow("right size, wrong content")
            << "wrong content" << "ModelStoreError: Downloaded model failed its SHA-256 check";
        QTest::newRow("nobody listening") << "refused" << "SystemError: Connection refused";
        QTest::newRow("mirror is not a web address") << "bad mirror" << "ModelStoreError: Invalid model URL";
    }

    void download()
    {
        QFETCH(QString, setup);
        QFETCH(QString, expected);
        const QString path = QStringLiteral("/repo/resolve/0123/model.gguf");
        const QString source = files(QStringLiteral("model.gguf"));
        if (setup == QLatin1String("redirects")) {
            m_server->redirect(path, m_server->base() + QStringLiteral("hop"), 301);
            m_server->redirect(QStringLiteral("/hop"), QStringLiteral("/storage/blob"), 307);
            m_server->serveFile(QStringLiteral("/storage/blob"), source);
        } else if (setup == QLatin1String("missing")) {
            m_server->redirect(path, QStringLiteral("/nowhere"));
        } else if (setup == QLatin1String("status 500")) {
            m_server->redirect(path, QString(), 500);
        } else if (setup.startsWith(QLatin1String("truncated"))) {
            m_server->cutShort(path, source, MiB + 7, ModelFileServer::Ending::CloseEarly, !setup.endsWith("length"));
        } else if (setup == QLatin1String("short") || setup == QLatin1String("wrong content")) {
            QByteArray content = m_model;
            if (setup == QLatin1String("short"))
                content.chop(1);
            else
                content[content.size() / 2] = char(content.at(content.size() / 2) ^ 1);
            serve(QStringLiteral("model.gguf"), content);
        } else if (setup == QLatin1String("refused")) {
            m_server.reset();
        } else if (setup == QLatin1String("bad mirror")) {
            qputenv("CORVANE_MODEL_MIRROR", "file:///srv/models/");
        }

        ModelStore store(m_models, m_catalogue);
        // An older copy of the model is installed: a rejected download must not replace it.
        writeFile(store.filePath(m_chat), randomBytes(m_model.size(), 99));
        QVERIFY(store.isInstalled(m_chat));
        const auto before = snapshot(m_models);

        QCOMPARE(outcome([&] { awaitTask(store.install(m_chat)); }), expected);
        if (expected == QLatin1String("ok")) {
            QCOMPARE(readFile(store.filePath(m_chat)), m_model);
            QCOMPARE(QDir(m_models).entryList(QDir::Files | QDir::Hidden), QStringList{m_chat.fileName});
        } else {
            QCOMPARE(snapshot(m_models), before);
        }
    }

    void cancel_data()
    {
        QTest::addColumn<QString>("when");
        QTest::newRow("before the start") << "before";
        QTest::newRow("from the progress report") << "progress";
        QTest::newRow("from outside") << "outside";
    }

    void cancel()
    {
        QFETCH(QString, when);
        // The server sends part of the file and then holds the connection open: only aborting
        // the transfer can end the wait.
        m_server->cutShort(QStringLiteral("/repo/resolve/0123/model.gguf"), files(QStringLiteral("model.gguf")),
                           3 * MiB / 2, ModelFileServer::Ending::Hang);
        ModelStore store(m_models, m_catalogue);
        CancellationToken cancel;
        int reports = 0;
        const auto progress = [&reports, cancel, when](qint64) {
            ++reports;
            if (when == QLatin1String("progress"))
                cancel.cancel();
        };
        if (when == QLatin1String("before"))
            cancel.cancel();
        else if (when == QLatin1String("outside"))
            QTimer::singleShot(300, [cancel] { cancel.cancel(); });
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(outcome([&] { awaitTask(store.install(m_chat, progress, cancel)); }), "CancelledError: Stopped");
        QVERIFY(clock.elapsed() < 10000);
        QCOMPARE(m_server->requests().isEmpty(), when == QLatin1String("before"));
        // One report per MiB received: more would flood the window, none would leave it still.
        if (when == QLatin1String("progress"))
            QCOMPARE(reports, 1);
        QVERIFY(!QFile::exists(store.filePath(m_chat)));
    }

    void isInstalled()
    {
        ModelStore store(m_models, m_catalogue);
        QVERIFY(!store.isInstalled(m_chat));
        // Same-size files are trusted whatever they hold: the digest was checked on the way in.
        for (const qint64 sizeChange : {-1, 1, 0}) {
            writeFile(store.filePath(m_chat), randomBytes(m_chat.byteCount + sizeChange, 5));
            QCOMPARE(store.isInstalled(m_chat), sizeChange == 0);
            QCOMPARE(store.installedIDs().contains(m_chat.id), sizeChange == 0);
        }
        store.remove(m_chat);
        QVERIFY(!QFile::exists(store.filePath(m_chat)));
        store.remove(m_chat);
    }

    void installFromFile_data()
    {
        QTest::addColumn<QByteArray>("data");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("expected");
        const QByteArray sameSize = randomBytes(m_model.size(), 11);
        const QByteArray otherSize = randomBytes(MiB + 3, 12);
        QTest::newRow("match under another name") << m_model << "download (1).bin" << "qwen-2b-abliterated";
        QTest::newRow("projector match") << m_projector << "mmproj-F16.gguf" << "qwen-2b-vision";
        QTest::newRow("no match") << otherSize << "notes.txt" << "This file is not one of Corvane's models";
        QTest::newRow("same size, other content") << sameSize << "notes.txt" << "This file is not one of Corvane's models";
        QTest::newRow("model's name, wrong size")
            << otherSize << "qwen-2b-abliterated.gguf" << "Downloaded model has the wrong size";
        QTest::newRow("model's name, wrong content")
            << sameSize << "qwen-2b-abliterated.gguf" << "Downloaded model failed its SHA-256 check";
    }

    void installFromFile()
    {
        QFETCH(QByteArray, data);
        QFETCH(QString, name);
        QFETCH(QString, expected);
        const QString user = m_root.filePath(QStringLiteral("user"));
        QVERIFY(QDir().mkpath(user));
        const QString source = QDir(user).filePath(name);
        writeFile(source, data);

        ModelStore store(m_models, m_catalogue);
        QList<qint64> seen;
        ModelSpec installed;
        const QString ending = outcome(
            [&] { installed = awaitTask(store.installFromFile(source, [&seen](qint64 n) { seen.append(n); })); });
        if (expected.startsWith(QLatin1String("qwen-"))) {
            QCOMPARE(ending, "ok");
            QCOMPARE(installed.id, expected);
            QCOMPARE(readFile(store.filePath(installed)), data);
            QVERIFY2(!QFile::exists(source), "same file system: renamed");
            // One report per 1 MiB block read, the last one at the end of the file.
            QCOMPARE(seen.size(), int((data.size() + MiB - 1) / MiB));
            QCOMPARE(seen.last(), qint64(data.size()));
        } else {
            QCOMPARE(ending, "ModelStoreError: " + expected);
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
            const QString ending = outcome([&] { awaitTask(store.install(m_chat)); });
            qputenv("TMPDIR", m_tmp.toUtf8());
            QCOMPARE(ending, "ok");
            QCOMPARE(QDir(elsewhere.path()).entryList(QDir::Files), QStringList());
        } else {
            const QString source = elsewhere.filePath(QStringLiteral("model.gguf"));
            writeFile(source, m_model);
            QCOMPARE(awaitTask(store.installFromFile(source)).id, m_chat.id);
            QVERIFY2(QFile::exists(source), "a copy leaves the user's file where it was");
        }
        QCOMPARE(readFile(store.filePath(m_chat)), m_model);
        QCOMPARE(QDir(m_models).entryList(QDir::Files | QDir::Hidden), QStringList{m_chat.fileName});
    }
};

QTEST_GUILESS_MAIN(TestModelStore)
#include "tst_model_store.moc"
