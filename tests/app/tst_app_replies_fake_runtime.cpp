// Replies the real model cannot be made to give, answered by the stand-in llama-server: white
// space only, text with white space around it, replies about an image, which need a vision
// projector that cannot be generated here, and a GPU that cannot load the model or is too slow
// to.
#include "reply_fixture.h"

#include "app/chat_images.h"
#include "images/image_store.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QImage>
#include <QMimeData>
#include <QScopeGuard>
#include <QTest>

namespace {

/// The stand-in server lists one CUDA device and, as `behaviour` says, fails on it.
auto standInGpu(const char *behaviour)
{
    qputenv("CORVANE_FAKE_REPLY", "Fine.");
    qputenv("CORVANE_FAKE_DEVICES", "  CUDA0: Stand-in GPU (8192 MiB, 8000 MiB free)\n");
    qputenv(behaviour, "1");
    return qScopeGuard([behaviour] {
        qunsetenv("CORVANE_FAKE_DEVICES");
        qunsetenv(behaviour);
    });
}

} // namespace

class TestAppRepliesFakeRuntime : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void replyTextIsTrimmedWithFakeServer_data()
    {
        QTest::addColumn<QString>("pieces");
        QTest::addColumn<QString>("stored");
        QTest::newRow("white space only stores nothing") << " |\n|\t \n" << "";
        QTest::newRow("surrounding white space is trimmed") << "\n  Hello|, world| \n" << "Hello, world";
    }

    void replyTextIsTrimmedWithFakeServer()
    {
        QFETCH(QString, pieces);
        QFETCH(QString, stored);
        qputenv("CORVANE_FAKE_REPLY", pieces.toUtf8());
        ReplyFixture f;
        const qint64 chat = f.newChat();
        f.send(QStringLiteral("Say something"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), 30000);
        QCOMPARE(f.status(), QStringLiteral("Ready"));
        QVERIFY(!f.model->status()->isError());

        const QList<Message> messages = f.db().messages(chat);
        QCOMPARE(f.session().messages(), messages);
        QCOMPARE(messages.first().body, QStringLiteral("Say something"));
        if (stored.isEmpty()) {
            QCOMPARE(messages.size(), 1);
        } else {
            QCOMPARE(messages.size(), 2);
            QCOMPARE(messages.last().body, stored);
        }
    }

    void pastesOnlyPicturesWithFakeServer_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("picture");
        QTest::addColumn<QString>("file");
        QTest::addColumn<bool>("attached");
        QTest::newRow("a picture") << "" << true << "" << true;
        QTest::newRow("text wins over a picture of it") << "A1\tB1" << true << "" << false;
        QTest::newRow("text only") << "hello" << false << "" << false;
        QTest::newRow("a copied picture file") << "" << false << "photo.png" << true;
        QTest::newRow("a copied document") << "" << false << "notes.txt" << false;
    }

    void pastesOnlyPicturesWithFakeServer()
    {
        QFETCH(QString, text);
        QFETCH(bool, picture);
        QFETCH(QString, file);
        QFETCH(bool, attached);
        ReplyFixture f(ReplyFixture::StandInProjector);
        f.newChat();
        QTemporaryDir files;
        auto *mime = new QMimeData;
        if (!text.isEmpty())
            mime->setText(text);
        if (picture)
            mime->setImageData(redPicture());
        if (!file.isEmpty()) {
            const QString path = files.filePath(file);
            QVERIFY(redPicture().save(path, "PNG"));
            mime->setUrls({QUrl::fromLocalFile(path)});
        }
        QGuiApplication::clipboard()->setMimeData(mime);

        ChatImages &images = *f.model->images();
        QCOMPARE(images.pasteImage(), attached);
        if (attached)
            QTRY_VERIFY(!images.pendingImage().isEmpty());
        QTRY_VERIFY(!images.isImporting());
        QCOMPARE(images.pendingImage().isEmpty(), !attached);
        QVERIFY(!f.model->status()->isError());
    }

    void repliesAboutAnImageWithFakeServer()
    {
        qputenv("CORVANE_FAKE_DESCRIPTION", "A red square on white.");
        qputenv("CORVANE_FAKE_REPLY", "It is red.");
        ReplyFixture f(ReplyFixture::StandInProjector);
        const qint64 chat = f.newChat();
        QGuiApplication::clipboard()->setImage(redPicture());
        ChatImages &images = *f.model->images();
        QVERIFY(images.pasteImage());
        QTRY_VERIFY(!images.pendingImage().isEmpty());
        const QString name = images.pendingImage();

        f.send(QStringLiteral("What is this?"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), 30000);
        QCOMPARE(f.status(), QStringLiteral("Ready"));
        QVERIFY(f.statuses.contains(QStringLiteral("Looking at the image…")));
        QVERIFY(images.pendingImage().isEmpty());

        const QList<Message> messages = f.db().messages(chat);
        QCOMPARE(messages.size(), 2);
        QCOMPARE(messages.first().image, name);
        QCOMPARE(messages.first().imageDescription, QStringLiteral("A red square on white."));
        QCOMPARE(messages.last().body, QStringLiteral("It is red."));

        // The picture itself went to be described, then with the message to the model.
        const QByteArray picture = "data:image/jpeg;base64," + images.store().data(name).toBase64();
        QCOMPARE(f.completions.size(), 2);
        QVERIFY(!f.completions.first().value(QStringLiteral("stream")).toBool());
        QVERIFY(QJsonDocument(f.completions.first()).toJson().contains(picture));
        QVERIFY(f.completions.last().value(QStringLiteral("stream")).toBool());
        QVERIFY(QJsonDocument(f.completions.last()).toJson().contains(picture));

        // The description is searchable.
        const QList<SearchHit> hits = f.db().search(QStringLiteral("red square"));
        QVERIFY(std::ranges::any_of(hits, [&](const SearchHit &hit) { return hit.id == messages.first().id; }));

        // A second reply describes nothing again.
        f.completions.clear();
        f.send(QStringLiteral("And now?"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), 30000);
        QCOMPARE(f.completions.size(), 1);
    }

    void movesToTheCpuWhenTheGpuFailsWithFakeServer()
    {
        const auto restore = standInGpu("CORVANE_FAKE_FAIL_OFF_CPU");
        ReplyFixture f;
        ComputeChoice &compute = *f.model->compute();
        QTRY_COMPARE(compute.runsOn(), QStringLiteral("Stand-in GPU (CUDA)"));
        const qint64 chat = f.newChat();
        const QString name = f.model->models()->languageModel()->name;
        const QString notice = name + QStringLiteral(" could not run on Stand-in GPU, so it runs on the CPU");
        const auto reply = [&](const QString &text) {
            f.statuses.clear();
            f.send(text);
            QTRY_VERIFY_WITH_TIMEOUT(f.idle(), 30000);
            QVERIFY(!f.model->status()->isError());
        };

        // The GPU fails; the reply comes from the CPU and the status line says so.
        reply(QStringLiteral("Hello"));
        QCOMPARE(f.status(), notice);
        QCOMPARE(compute.runsOn(), QStringLiteral("CPU"));
        QCOMPARE(f.session().messageMetadata(f.db().messages(chat).last().id).value("device").toString(),
                 QStringLiteral("CPU"));
        QVERIFY(f.db().setting(QStringLiteral("cpu_fallback_models"))->contains(ReplyFixture::modelID));

        // Remembered: a new server starts on the CPU straight away.
        f.model->inference().shutdown();
        reply(QStringLiteral("Again"));
        QCOMPARE(f.status(), QStringLiteral("Ready"));
        QVERIFY(!f.statuses.contains(notice));

        // Choosing again tries the GPU again; CPU only never does.
        compute.setPreference(QStringLiteral("auto"));
        QCOMPARE(compute.runsOn(), QStringLiteral("Stand-in GPU (CUDA)"));
        reply(QStringLiteral("Once more"));
        QCOMPARE(f.status(), notice);
        compute.setPreference(QStringLiteral("cpu"));
        f.model->inference().shutdown();
        reply(QStringLiteral("On the CPU"));
        QCOMPARE(f.status(), QStringLiteral("Ready"));
        QCOMPARE(f.db().setting(QStringLiteral("compute_device")), QStringLiteral("cpu"));
    }

    void aGpuTooSlowToStartIsTriedAgainWithFakeServer()
    {
        const auto restore = standInGpu("CORVANE_FAKE_SLOW_OFF_CPU");
        ReplyFixture f;
        ComputeChoice &compute = *f.model->compute();
        QTRY_COMPARE(compute.runsOn(), QStringLiteral("Stand-in GPU (CUDA)"));
        const qint64 chat = f.newChat();
        const QString name = f.model->models()->languageModel()->name;
        const auto deviceOfLastReply = [&] {
            return f.session().messageMetadata(f.db().messages(chat).last().id).value("device").toString();
        };

        // The server on the GPU is still not ready when the wait for it ends (half a minute).
        f.send(QStringLiteral("Hello"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), 90000);
        QVERIFY(!f.model->status()->isError());
        QCOMPARE(f.status(), name + QStringLiteral(" took too long to start on Stand-in GPU, so it runs on the CPU this time"));
        QCOMPARE(deviceOfLastReply(), QStringLiteral("CPU"));
        QVERIFY(!f.db().setting(QStringLiteral("cpu_fallback_models")).value_or(QString()).contains(ReplyFixture::modelID));

        // Not remembered: the next start, quick now, is on the GPU.
        qunsetenv("CORVANE_FAKE_SLOW_OFF_CPU");
        f.model->inference().shutdown();
        f.send(QStringLiteral("Again"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), 30000);
        QCOMPARE(f.status(), QStringLiteral("Ready"));
        QCOMPARE(deviceOfLastReply(), QStringLiteral("Stand-in GPU (CUDA)"));
    }

private:
    static QImage redPicture()
    {
        QImage picture(64, 48, QImage::Format_RGB32);
        picture.fill(Qt::red);
        return picture;
    }
};

QTEST_MAIN(TestAppRepliesFakeRuntime)
#include "tst_app_replies_fake_runtime.moc"
