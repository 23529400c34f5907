#pragma once

#include "models/model_spec.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>

/// Makes `model` (by default the generated test model) the installed chat model of the data
/// folder `dataDirectory`: links it into its Models folder and returns the catalogue entry,
/// id "test-chat", to build the AppModel with.
inline ModelSpec linkTestChatModel(const QString &dataDirectory,
                                   const QString &model = QStringLiteral(CORVANE_TEST_MODELS_DIR "/chat-qwen35.gguf"))
{
    ModelSpec spec;
    spec.id = QStringLiteral("test-chat");
    spec.name = QStringLiteral("Test chat model");
    spec.fileName = QStringLiteral("chat.gguf");
    spec.url = QStringLiteral("test/resolve/0/chat.gguf");
    spec.byteCount = QFileInfo(model).size();
    spec.sha256 = QString(64, QLatin1Char('0'));
    spec.role = ModelSpec::Role::Chat;
    QDir().mkpath(dataDirectory + QStringLiteral("/Models"));
    QFile::link(QFileInfo(model).absoluteFilePath(), dataDirectory + QStringLiteral("/Models/chat.gguf"));
    return spec;
}

/// The generated random-weight Whisper model as the installed dictation model "whisper-base".
inline ModelSpec linkTestWhisperModel(const QString &dataDirectory)
{
    const QString model = QStringLiteral(CORVANE_TEST_MODELS_DIR "/whisper-random.bin");
    ModelSpec spec;
    spec.id = QStringLiteral("whisper-base");
    spec.name = QStringLiteral("Test dictation model");
    spec.fileName = QStringLiteral("ggml-base.bin");
    spec.url = QStringLiteral("test/resolve/0/ggml-base.bin");
    spec.byteCount = QFileInfo(model).size();
    spec.sha256 = QString(64, QLatin1Char('0'));
    spec.role = ModelSpec::Role::Transcription;
    QDir().mkpath(dataDirectory + QStringLiteral("/Models"));
    QFile::link(QFileInfo(model).absoluteFilePath(), dataDirectory + QStringLiteral("/Models/ggml-base.bin"));
    return spec;
}

/// A stand-in vision projector for the test model (id "test-chat-vision") in the data folder
/// `dataDirectory`: only the stand-in llama-server is ever started with it, and it never reads
/// the file.
inline ModelSpec writeTestProjector(const QString &dataDirectory)
{
    const QByteArray content("a projector only the stand-in server accepts");
    ModelSpec spec;
    spec.id = QStringLiteral("test-chat-vision");
    spec.name = QStringLiteral("Test image support");
    spec.fileName = QStringLiteral("vision.gguf");
    spec.url = QStringLiteral("test/resolve/0/vision.gguf");
    spec.byteCount = content.size();
    spec.sha256 = QString(64, QLatin1Char('0'));
    spec.role = ModelSpec::Role::Vision;
    QDir().mkpath(dataDirectory + QStringLiteral("/Models"));
    QFile file(dataDirectory + QStringLiteral("/Models/vision.gguf"));
    if (file.open(QIODevice::WriteOnly))
        file.write(content);
    return spec;
}
