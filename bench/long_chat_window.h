#pragma once

// The window open over a chat of 10,000 Markdown messages, for the benchmarks that measure the
// window while a reply streams into it.

#include "bench_support.h"

#include "app/app_model.h"
#include "qml_types.h"

#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QUrl>

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
