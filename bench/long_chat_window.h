#pragma once

// The window open over a chat of 10,000 Markdown messages, for the benchmarks that measure the
// window while a reply streams into it.

#include "bench_support.h"

#include "app/app_model.h"
#include "qml_types.h"

#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QUrl>

#include <memory>

/// What a window benchmark runs on, beside the stand-in llama-server: a data folder of its own
/// with a chat model that counts as installed, the application model, and the window over the
/// long chat. Made after the QGuiApplication; the window goes before the model.
struct LongChatWindowBench
{
    QTemporaryDir dir;
    std::unique_ptr<AppModel> model;
    QQmlApplicationEngine engine;
    QQuickWindow *window = nullptr;

    /// False when the data folder could not be set up or the window did not load.
    bool open();
};

/// Adds the long chat and selects it, then loads the window over `appModel` into `engine`
/// (declared after the model, so that the window goes first). Null when the window did not load.
inline QQuickWindow *openLongChatWindow(AppModel &appModel, QQmlApplicationEngine &engine)
{
    appModel.tree()->addChat(ChatTree::none);
    const qint64 chat = appModel.tree()->selectedChatID();
    addConversation(appModel.database(), chat, 10000,
                    QStringLiteral("Message %1 with **some bold words**, a list:\n\n- one\n- two\n\n"
                                   "and `a little code`."));
    appModel.tree()->selectChat(chat);
    AppModelSingleton::instance = &appModel;
    engine.load(QUrl(QStringLiteral("qrc:/qt/qml/Corvane/Main.qml")));
    return engine.rootObjects().isEmpty() ? nullptr : qobject_cast<QQuickWindow *>(engine.rootObjects().first());
}

inline bool LongChatWindowBench::open()
{
    const QList<ModelSpec> catalogue = standInChatModel(dir.path());
    if (catalogue.isEmpty())
        return false;
    model = std::make_unique<AppModel>(catalogue);
    window = openLongChatWindow(*model, engine);
    return window != nullptr;
}
