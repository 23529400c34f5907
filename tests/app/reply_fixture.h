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

    /// Models installed beside the chat model.
    enum Extra { StandInProjector = 1, DictationModel = 2 };

    explicit ReplyFixture(int extras = 0)
    {
        const QString data = m_dir.filePath(QStringLiteral("data"));
        qputenv("CORVANE_DATA_DIR", data.toUtf8());
        QList<ModelSpec> catalogue{linkTestChatModel(data)};
        if (extras & StandInProjector)
            catalogue.append(writeTestProjector(data));
        if (extras & DictationModel)
            catalogue.append(linkTestWhisperModel(data));
        model = std::make_unique<AppModel>(catalogue);

        QObject::connect(&model->inference(), &InferenceEngine::requestSent, model.get(),
                         [this](const QString &path, const QByteArray &body) {
                             if (path == QLatin1String("/v1/chat/completions"))
                                 completions.append(QJsonDocument::fromJson(body).object());
                         });
        QObject::connect(model->status(), &StatusBanner::changed, model.get(),
                         [this] { statuses.append(model->status()->text()); });
        m_ticker.setInterval(5);
        QObject::connect(&m_ticker, &QTimer::timeout, [this] {
            longestGapMs = std::max(longestGapMs, m_sinceTick.restart());
        });
    }

    Database &db() { return model->database(); }
    ChatSession &session() { return *model->chat(); }
    ChatTree &tree() { return *model->tree(); }
    QString status() const { return model->status()->text(); }

    /// A new chat in the first folder, selected.
    qint64 newChat()
    {
        tree().addChat(ChatTree::none);
        return tree().selectedChatID();
    }

    /// A stored message, as the application writes one, with an attached image name and
    /// description when given.
    qint64 addRow(qint64 chatID, const QString &role, const QString &body, const QString &image = {},
                  const QString &description = {})
    {
        Message message;
        message.chatID = chatID;
        message.role = role;
        message.body = body;
        message.image = image;
        const qint64 id = db().addMessage(message);
        if (!description.isEmpty())
            db().execute(QStringLiteral("UPDATE messages SET image_description=? WHERE id=?"),
                         {DBValue::text(description), DBValue::integer(id)});
        return id;
    }

    /// Types `text`, sends it and starts watching the event loop.
    void send(const QString &text)
    {
        session().setComposer(text);
        m_sinceTick.start();
        m_ticker.start();
        session().send();
    }

    bool idle() const { return !model->chat()->isGenerating(); }
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
