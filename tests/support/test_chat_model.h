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
