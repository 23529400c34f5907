// Describing an image needs a server started with a vision projector, and none can be
// generated here, so the stand-in llama-server plays that server: the engine must start it
// with the projector, report vision, and send the picture in the request.
#include "inference/inference_engine.h"
#include "inference/inference_error.h"

#include "support/await_task.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

class TestInferenceFakeRuntime : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void describesAnImageWithFakeServer()
    {
        qputenv("CORVANE_FAKE_DESCRIPTION", "  A small red boat on a lake.\n");
        InferenceEngine engine;
        QList<QByteArray> sent;
        connect(&engine, &InferenceEngine::requestSent, this,
                [&sent](const QString &path, const QByteArray &body) {
                    if (path == QLatin1String("/v1/chat/completions"))
                        sent << body;
                });

        awaitTask(engine.load(QStringLiteral("/models/chat.gguf"), std::nullopt, 4096));
        QVERIFY(!engine.hasVision());
        QVERIFY_THROWS_EXCEPTION(InferenceError, awaitTask(engine.describeImage("jpeg")));
        QVERIFY(sent.isEmpty());

        // The same model with its projector is another server.
        awaitTask(engine.load(QStringLiteral("/models/chat.gguf"), QStringLiteral("/models/vision.gguf"), 4096));
        QVERIFY(engine.hasVision());
        const QByteArray jpeg("\xff\xd8\xff\xe0 not really a picture", 25);
        const QString description = awaitTask(engine.describeImage(jpeg));
        QCOMPARE(description, QStringLiteral("A small red boat on a lake."));

        QCOMPARE(sent.size(), 1);
        const QJsonObject body = QJsonDocument::fromJson(sent.first()).object();
        QVERIFY(!body.value(QStringLiteral("stream")).toBool());
        const QString text = QString::fromUtf8(sent.first());
        QVERIFY(text.contains(QStringLiteral("data:image/jpeg;base64,") + QString::fromLatin1(jpeg.toBase64())));
    }
};

QTEST_GUILESS_MAIN(TestInferenceFakeRuntime)
#include "tst_inference_fake_runtime.moc"
