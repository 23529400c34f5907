// Describing an image needs a server started with a vision projector, and none can be
// generated here, so the stand-in llama-server plays that server: the engine refuses without
// vision and starts another server with the projector. What the request carries is checked
// on the whole reply path (tst_app_replies_fake_runtime).
#include "inference/inference_engine.h"
#include "inference/inference_error.h"

#include "support/await_task.h"

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
        try {
            awaitTask(engine.describeImage("jpeg"));
            QFAIL("described an image without vision");
        } catch (const InferenceError &error) {
            QCOMPARE(error.kind(), InferenceError::Case::VisionUnavailable);
        }
        QVERIFY(sent.isEmpty());

        // The same model with its projector is another server, which answers trimmed.
        awaitTask(engine.load(QStringLiteral("/models/chat.gguf"), QStringLiteral("/models/vision.gguf"), 4096));
        QVERIFY(engine.hasVision());
        QCOMPARE(awaitTask(engine.describeImage("jpeg")), QStringLiteral("A small red boat on a lake."));
    }
};

QTEST_GUILESS_MAIN(TestInferenceFakeRuntime)
#include "tst_inference_fake_runtime.moc"
