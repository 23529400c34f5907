#pragma once

// What QML sees of the application: the one AppModel as the singleton `AppModel`, its areas as
// types it can read but not create, and the readiness and lock dialog values by name.

#include "app/app_model.h"

#include <QQmlEngine>

/// The application's one AppModel, built by main() before the window loads and handed in
/// through `instance`.
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

// The areas are reached through AppModel's properties, never created in QML. (moc reads
// these declarations as written, so they cannot come from a macro.)
struct StatusBannerForeign
{
    Q_GADGET
    QML_FOREIGN(StatusBanner)
    QML_NAMED_ELEMENT(StatusBanner)
    QML_UNCREATABLE("Reached through AppModel")
};

struct AppSettingsForeign
{
    Q_GADGET
    QML_FOREIGN(AppSettings)
    QML_NAMED_ELEMENT(AppSettings)
    QML_UNCREATABLE("Reached through AppModel")
};

struct ModelsControllerForeign
{
    Q_GADGET
    QML_FOREIGN(ModelsController)
    QML_NAMED_ELEMENT(ModelsController)
    QML_UNCREATABLE("Reached through AppModel")
};

struct ChatTreeForeign
{
    Q_GADGET
    QML_FOREIGN(ChatTree)
    QML_NAMED_ELEMENT(ChatTree)
    QML_UNCREATABLE("Reached through AppModel")
};

struct ChatSessionForeign
{
    Q_GADGET
    QML_FOREIGN(ChatSession)
    QML_NAMED_ELEMENT(ChatSession)
    QML_UNCREATABLE("Reached through AppModel")
};

struct FolderLocksForeign
{
    Q_GADGET
    QML_FOREIGN(FolderLocks)
    QML_NAMED_ELEMENT(FolderLocks)
    QML_UNCREATABLE("Reached through AppModel")
};

struct ScriptLibraryForeign
{
    Q_GADGET
    QML_FOREIGN(ScriptLibrary)
    QML_NAMED_ELEMENT(ScriptLibrary)
    QML_UNCREATABLE("Reached through AppModel")
};

struct ChatImagesForeign
{
    Q_GADGET
    QML_FOREIGN(ChatImages)
    QML_NAMED_ELEMENT(ChatImages)
    QML_UNCREATABLE("Reached through AppModel")
};

struct SearchForeign
{
    Q_GADGET
    QML_FOREIGN(Search)
    QML_NAMED_ELEMENT(Search)
    QML_UNCREATABLE("Reached through AppModel")
};

struct SpeechForeign
{
    Q_GADGET
    QML_FOREIGN(Speech)
    QML_NAMED_ELEMENT(Speech)
    QML_UNCREATABLE("Reached through AppModel")
};

struct ChatExportForeign
{
    Q_GADGET
    QML_FOREIGN(ChatExport)
    QML_NAMED_ELEMENT(ChatExport)
    QML_UNCREATABLE("Reached through AppModel")
};

struct AppearanceForeign
{
    Q_GADGET
    QML_FOREIGN(Appearance)
    QML_NAMED_ELEMENT(Appearance)
    QML_UNCREATABLE("Reached through AppModel")
};

struct WindowStateForeign
{
    Q_GADGET
    QML_FOREIGN(WindowState)
    QML_NAMED_ELEMENT(WindowState)
    QML_UNCREATABLE("Reached through AppModel")
};

namespace ReadinessForeign {
Q_NAMESPACE
QML_FOREIGN_NAMESPACE(Readiness)
QML_NAMED_ELEMENT(Readiness)
} // namespace ReadinessForeign

// `AppModel.locks.sheet === LockSheet.Unlock`, `sheetPurpose === UnlockPurpose.Lock`.
namespace LockSheetForeign {
Q_NAMESPACE
QML_FOREIGN_NAMESPACE(LockSheet)
QML_NAMED_ELEMENT(LockSheet)
} // namespace LockSheetForeign

namespace UnlockPurposeForeign {
Q_NAMESPACE
QML_FOREIGN_NAMESPACE(UnlockPurpose)
QML_NAMED_ELEMENT(UnlockPurpose)
} // namespace UnlockPurposeForeign
