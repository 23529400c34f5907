#pragma once

#include "app/app_model.h"

#include <QQmlEngine>

/// Makes the application's one AppModel available to QML as the singleton `AppModel`.
/// The model is built by main() before the window loads and handed in through `instance`.
struct AppModelSingleton
{
    Q_GADGET
    QML_FOREIGN(AppModel)
    QML_NAMED_ELEMENT(AppModel)
    QML_SINGLETON

public:
    inline static AppModel *instance = nullptr;

    static AppModel *create(QQmlEngine *, QJSEngine *engine)
    {
        Q_ASSERT(instance);
        // The engine must neither own nor delete the model, and it must be created on the
        // engine's thread.
        Q_ASSERT(engine->thread() == instance->thread());
        QJSEngine::setObjectOwnership(instance, QJSEngine::CppOwnership);
        return instance;
    }
};
