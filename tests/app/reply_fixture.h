#pragma once

// An AppModel whose one chat model is the generated test model, installed by linking it into
// a fresh data folder, and what the tests need to watch it reply: the bodies the inference
// server receives, the status texts in order, and the longest stretch without an event-loop
// turn.

#include "app/app_model.h"
#include "inference/inference_engine.h"
#include "storage/database.h"
#include "support/test_chat_model.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTimer>

#include <memory>

class ReplyFixture
{
    QTemporaryDir m_dir; // first: the model's files live in it until the model is gone

public:
    static inline const QString modelID = QStringLiteral("test-chat");

    ReplyFixture()
    {
        const QString data = m_dir.filePath(QStringLiteral("data"));
        qputenv("CORVANE_DATA_DIR", data.toUtf8());
        const ModelSpec spec = linkTestChatModel(data);
        model = std::make_unique<AppModel>(QList<ModelSpec>{spec});

        QObject::connect(&model->inference(), &InferenceEngine::requestSent, model.get(),
                         [this](const QString &path, const QByteArray &body) {
                             if (path == QLatin1String("/v1/chat/completions"))
                                 completions.append(QJsonDocument::fromJson(body).object());
                         });
        QObject::connect(model.get(), &AppModel::statusChanged, model.get(),
                         [this] { statuses.append(model->status()); });
        m_ticker.setInterval(5);
        QObject::connect(&m_ticker, &QTimer::timeout, [this] {
            longestGapMs = std::max(longestGapMs, m_sinceTick.restart());
        });
    }

    Database &db() { return model->database(); }

    /// A new chat in the first folder, selected.
    qint64 newChat()
    {
        model->addChat();
        return *model->selectedChatID();
    }

    /// A stored message, as the application writes one, with an attached image name and
    /// description when given.
    qint64 addRow(qint64 chatID, const QString &role, const QString &body, const QString &image = {},
                  const QString &description = {})
    {
        db().execute(QStringLiteral("INSERT INTO messages(chat_id, role, body, created_at, metadata, image, "
                                    "image_description, display, hidden, data) VALUES(?,?,?,?,?,?,?,?,0,?)"),
                     {DBValue::integer(chatID), DBValue::text(role), DBValue::text(body),
                      DBValue::text(QStringLiteral("2026-11-20T10:00:00Z")), DBValue::text(QString()),
                      DBValue::text(image), DBValue::text(description), DBValue::text(QString()),
                      DBValue::text(QString())});
        return db().lastInsertedID();
    }

    /// Types `text`, sends it and starts watching the event loop.
    void send(const QString &text)
    {
        model->setComposer(text);
        m_sinceTick.start();
        m_ticker.start();
        model->send();
    }

    bool idle() const { return !model->isGenerating(); }
    void stopWatching() { m_ticker.stop(); }

    /// The "messages" array of the last streamed request.
    QJsonArray lastRequestMessages() const
    {
        return completions.isEmpty() ? QJsonArray()
                                     : completions.last().value(QStringLiteral("messages")).toArray();
    }

    std::unique_ptr<AppModel> model;
    QList<QJsonObject> completions;
    QStringList statuses;
    qint64 longestGapMs = 0;

private:
    QTimer m_ticker;
    QElapsedTimer m_sinceTick;
};
