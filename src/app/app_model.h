#pragma once

#include "app/app_settings.h"
#include "app/appearance.h"
#include "app/chat_export.h"
#include "app/chat_images.h"
#include "app/chat_session.h"
#include "app/chat_tree.h"
#include "app/compute_choice.h"
#include "app/folder_locks.h"
#include "app/models_controller.h"
#include "app/readiness.h"
#include "app/script_library.h"
#include "app/search.h"
#include "app/speech.h"
#include "app/window_state.h"
#include "app/status_banner.h"
#include "models/model_spec.h"

#include <QObject>
#include <QString>

#include <QCoro/QCoroTask>

#include <memory>

class AutoLock;
class ScriptTimer;
class Database;
class ImageStore;
class InferenceEngine;
class ModelStore;
class SpeechEngine;

/// The application's root: builds the services and one object per area in the start-up
/// order, wires the rules that cross areas, and answers what concerns them all (busy,
/// readiness, erasing everything). The window reaches each area through its property.
class AppModel : public QObject
{
    Q_OBJECT
    Q_PROPERTY(StatusBanner *status READ status CONSTANT)
    Q_PROPERTY(AppSettings *settings READ settings CONSTANT)
    Q_PROPERTY(ModelsController *models READ models CONSTANT)
    Q_PROPERTY(ComputeChoice *compute READ compute CONSTANT)
    Q_PROPERTY(ChatTree *tree READ tree CONSTANT)
    Q_PROPERTY(ChatSession *chat READ chat CONSTANT)
    Q_PROPERTY(ChatImages *images READ images CONSTANT)
    Q_PROPERTY(FolderLocks *locks READ locks CONSTANT)
    Q_PROPERTY(Search *search READ search CONSTANT)
    Q_PROPERTY(ScriptLibrary *scripts READ scripts CONSTANT)
    Q_PROPERTY(Speech *speech READ speech CONSTANT)
    Q_PROPERTY(WindowState *windowState READ windowState CONSTANT)
    Q_PROPERTY(ChatExport *chatExport READ chatExport CONSTANT)
    Q_PROPERTY(Appearance *appearance READ appearance CONSTANT)
    Q_PROPERTY(bool isBusy READ isBusy NOTIFY activityChanged)
    Q_PROPERTY(bool isErasing READ isErasing NOTIFY activityChanged)
    Q_PROPERTY(Readiness::Value readiness READ readiness NOTIFY readinessChanged)

public:
    /// Builds everything in the start-up order: the inference engine, the database, the model
    /// store and the images folder, the stored settings, the vault record, then the tree and
    /// the first chat. Throws a CorvaneError when local storage cannot be opened; the caller
    /// stops with "Could not open local storage: " and the error's description.
    explicit AppModel(QObject *parent = nullptr);
    /// The same with another list of installable models, for tests that serve small files.
    explicit AppModel(QList<ModelSpec> catalogue, QObject *parent = nullptr);
    ~AppModel() override;

    Database &database() { return *m_database; }
    InferenceEngine &inference() { return *m_inference; }
    ModelStore &modelStore() { return *m_modelStore; }

    StatusBanner *status() const { return m_status.get(); }
    AppSettings *settings() const { return m_settings.get(); }
    ModelsController *models() const { return m_models.get(); }
    ComputeChoice *compute() const { return m_compute.get(); }
    ChatTree *tree() const { return m_tree.get(); }
    ChatSession *chat() const { return m_chat.get(); }
    ChatImages *images() const { return m_images.get(); }
    FolderLocks *locks() const { return m_locks.get(); }
    Search *search() const { return m_search.get(); }
    ScriptLibrary *scripts() const { return m_scripts.get(); }
    Speech *speech() const { return m_speech.get(); }
    WindowState *windowState() const { return m_windowState.get(); }
    ChatExport *chatExport() const { return m_chatExport.get(); }
    Appearance *appearance() const { return m_appearance.get(); }
    /// What closes open locked folders by itself: sleep, screen lock, session switch, idle.
    AutoLock &autoLock() { return *m_autoLock; }
    /// The selected chat's script timer.
    ScriptTimer &scriptTimer() { return *m_scriptTimer; }

    /// A reply, dictation, a model installation or erasing is under way.
    bool isBusy() const;
    Readiness::Value readiness() const;

    /// Removes every chat, folder, setting and downloaded model after the user confirmed, and
    /// ends with `erasingFinished`. Refused while anything is busy.
    Q_INVOKABLE void eraseAllData();
    /// The work of `eraseAllData`: answers whether everything was erased. Refused (false)
    /// while anything is busy; a failure is shown in the banner and answers false.
    QCoro::Task<bool> eraseAll();
    /// Erasing is under way; the window takes no input meanwhile.
    bool isErasing() const { return m_isErasing; }

Q_SIGNALS:
    void activityChanged();
    void readinessChanged();
    /// `eraseAllData` ended; `erased` is false when it was refused or failed.
    void erasingFinished(bool erased);

private:
    void setErasing(bool erasing);
    /// Another connection is writing (erasing, sealing): this one must not write meanwhile.
    bool isStorageBusy() const;

    QString m_supportDirectory;
    QString m_modelsDirectory;
    QString m_imagesDirectory;
    std::unique_ptr<InferenceEngine> m_inference;
    std::unique_ptr<SpeechEngine> m_speechEngine;
    std::unique_ptr<Database> m_database;
    std::unique_ptr<ModelStore> m_modelStore;
    std::unique_ptr<CartridgeLibrary> m_cartridgeLibrary;
    std::unique_ptr<ImageStore> m_imageStore;

    // Built in this order after the services, and so torn down before them, in reverse.
    std::unique_ptr<StatusBanner> m_status;
    std::unique_ptr<AppSettings> m_settings;
    std::unique_ptr<ModelsController> m_models;
    std::unique_ptr<ComputeChoice> m_compute;
    std::unique_ptr<ChatTree> m_tree;
    std::unique_ptr<FolderLocks> m_locks;
    std::unique_ptr<ChatImages> m_images;
    std::unique_ptr<ChatSession> m_chat;
    std::unique_ptr<Search> m_search;
    std::unique_ptr<ScriptLibrary> m_scripts;
    std::unique_ptr<Speech> m_speech;
    std::unique_ptr<WindowState> m_windowState;
    std::unique_ptr<ChatExport> m_chatExport;
    std::unique_ptr<Appearance> m_appearance;
    std::unique_ptr<ScriptTimer> m_scriptTimer;
    std::unique_ptr<AutoLock> m_autoLock;
    bool m_isErasing = false;
};
