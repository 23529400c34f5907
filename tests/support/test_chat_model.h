#pragma once

#include "models/model_spec.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>

/// Links the model file `model` into the Models folder of the data folder `dataDirectory` as
/// `fileName`, and answers a catalogue entry for it with `id` and `role`.
inline ModelSpec linkTestModel(const QString &dataDirectory, const QString &model, const QString &id,
                               const QString &fileName, ModelSpec::Role role)
{
    ModelSpec spec;
    spec.id = id;
    spec.name = QStringLiteral("Test model ") + id;
    spec.fileName = fileName;
    spec.url = QStringLiteral("test/resolve/0/") + fileName;
    spec.byteCount = QFileInfo(model).size();
    spec.sha256 = QString(64, QLatin1Char('0'));
    spec.role = role;
    QDir().mkpath(dataDirectory + QStringLiteral("/Models"));
    QFile::link(QFileInfo(model).absoluteFilePath(), dataDirectory + QStringLiteral("/Models/") + fileName);
    return spec;
}

/// Makes `model` (by default the generated test model) the installed chat model of the data
/// folder `dataDirectory`: links it into its Models folder and returns the catalogue entry,
/// id "test-chat", to build the AppModel with.
inline ModelSpec linkTestChatModel(const QString &dataDirectory,
                                   const QString &model = QStringLiteral(CORVANE_TEST_MODELS_DIR "/chat-qwen35.gguf"))
{
    return linkTestModel(dataDirectory, model, QStringLiteral("test-chat"), QStringLiteral("chat.gguf"),
                         ModelSpec::Role::Chat);
}

/// The generated random-weight Whisper model as the installed dictation model "whisper-base".
inline ModelSpec linkTestWhisperModel(const QString &dataDirectory)
{
    return linkTestModel(dataDirectory, QStringLiteral(CORVANE_TEST_MODELS_DIR "/whisper-random.bin"),
                         QStringLiteral("whisper-base"), QStringLiteral("ggml-base.bin"), ModelSpec::Role::Transcription);
}

/// A stand-in vision projector for the test model (id "test-chat-vision") in the data folder
/// `dataDirectory`: only the stand-in llama-server is ever started with it, and it never reads
/// the file.
inline ModelSpec writeTestProjector(const QString &dataDirectory)
{
    // Beside the data folder, as a downloaded file would be before it is installed.
    const QString projector = dataDirectory + QStringLiteral("-projector.gguf");
    QFile file(projector);
    if (file.open(QIODevice::WriteOnly))
        file.write("a projector only the stand-in server accepts");
    file.close();
    return linkTestModel(dataDirectory, projector, QStringLiteral("test-chat-vision"), QStringLiteral("vision.gguf"),
                         ModelSpec::Role::Vision);
}
