#include "app/app_model.h"

#include "app/app_paths.h"
#include "app/compactor.h"
#include "images/image_store.h"
#include "inference/inference_engine.h"
#include "models/model_catalogue.h"
#include "models/model_store.h"
#include "app/script_timer.h"
#include "platform/auto_lock.h"
#include "speech/speech_engine.h"
#include "storage/database.h"
#include "vault/computer_key_provider.h"

AppModel::AppModel(QObject *parent)
    : AppModel(ModelCatalogue::entries(), parent)
{
}

AppModel::AppModel(QList<ModelSpec> catalogue, QObject *parent)
    : QObject(parent)
{
    // 1. The engines, before anything can fail.
    m_inference = std::make_unique<InferenceEngine>();
    m_speechEngine = std::make_unique<SpeechEngine>(qEnvironmentVariable("CORVANE_SPEECH_ENGINE"));

    // 2. The database; a failure ends start-up.
    m_supportDirectory = AppPaths::supportDirectory();
    m_database = std::make_unique<Database>(m_supportDirectory + QStringLiteral("/chats.sqlite"));

    // 3. The stores and their folders.
    m_modelsDirectory = AppPaths::directory(QStringLiteral("Models"));
    m_modelStore = std::make_unique<ModelStore>(m_modelsDirectory, std::move(catalogue));
    m_cartridgeLibrary = std::make_unique<CartridgeLibrary>(m_supportDirectory);
    m_imagesDirectory = AppPaths::directory(QStringLiteral("Images"));
    m_imageStore = std::make_unique<ImageStore>(m_imagesDirectory);

    // 4. The stored settings, each checked against what it accepts, then the vault record.
    //    The server is never restarted under a running reply.
    m_status = std::make_unique<StatusBanner>();
    m_settings = std::make_unique<AppSettings>(*m_database, *m_modelStore, *m_status,
                                               [this] { return m_chat->isGenerating(); });
    m_models = std::make_unique<ModelsController>(*m_modelStore, *m_settings, *m_status);
    m_compute = std::make_unique<ComputeChoice>(*m_inference, *m_database, *m_status);
    m_models->normalizeSelections();

    // 5. The tree, with folders and chats deleted in an earlier run hidden until their rows
    //    are gone, and locked folders with the vault record. Nothing is deleted under a
    //    running reply or while rows are being sealed.
    m_tree = std::make_unique<ChatTree>(
        *m_database, *m_settings, *m_status,
        ChatTree::Rules{
            .editsBlocked = [this] { return isStorageBusy(); },
            .deletionBlocked = [this] { return m_chat->isGenerating() || isStorageBusy(); },
            .isOpen = [this](qint64 id) { return m_locks->isOpen(id); },
            .sealingFolder = [this] { return m_locks->sealingFolderID(); },
            .requestUnlock = [this](qint64 id) { m_locks->requestUnlock(id); },
        });
    const QString databasePath = m_supportDirectory + QStringLiteral("/chats.sqlite");
    m_locks = std::make_unique<FolderLocks>(*m_database, databasePath, *m_tree, *m_status,
                                           std::make_unique<ComputerKeyProvider>());
    m_images = std::make_unique<ChatImages>(*m_imageStore, *m_database, databasePath, *m_tree, *m_models, *m_status);
    m_chat = std::make_unique<ChatSession>(*m_database, *m_inference, *m_compute, *m_tree, *m_settings, *m_models, *m_images,
                                           *m_status, [this] { return isStorageBusy(); });
    m_search = std::make_unique<Search>(databasePath, *m_database, *m_tree, *m_status);
    m_scripts = std::make_unique<ScriptLibrary>(*m_cartridgeLibrary, *m_database, *m_tree, *m_status,
                                                [this] { return isStorageBusy(); });
    m_speech = std::make_unique<Speech>(*m_speechEngine, *m_chat, *m_models, *m_settings, *m_status);
    m_windowState = std::make_unique<WindowState>(*m_database);
    m_chatExport = std::make_unique<ChatExport>(databasePath, *m_database, *m_tree, *m_status);
    m_appearance = std::make_unique<Appearance>(*m_database, *m_status, QDBusConnection::sessionBus());
    m_scriptTimer = std::make_unique<ScriptTimer>(*m_database, *m_tree, *m_chat, *m_speech, *m_status);

    // The rules between areas.
    connect(m_settings.get(), &AppSettings::contextTokensChanged, this, [this] {
        // The next reply starts the server with the new context size.
        m_inference->shutdown();
    });
    connect(m_tree.get(), &ChatTree::deletionQueued, this, [this] {
        // A summary being written may be for what is going; the next reply starts it again.
        m_chat->compactor().cancel();
    });
    connect(m_chat.get(), &ChatSession::isGeneratingChanged, this, &AppModel::activityChanged);
    connect(m_locks.get(), &FolderLocks::workingChanged, this, &AppModel::activityChanged);
    connect(m_speech.get(), &Speech::recordingChanged, this, &AppModel::activityChanged);
    connect(m_chat.get(), &ChatSession::replyToSpeak, m_speech.get(), &Speech::speak);
    connect(m_locks.get(), &FolderLocks::keyForgotten, this, [this] {
        // Nothing may go on writing to a sealed chat without the key; work on plain chats
        // goes on.
        const auto sealed = [this](std::optional<qint64> chatID) {
            const auto chat = chatID ? m_tree->chat(*chatID) : std::nullopt;
            return chat && chat->isSealed;
        };
        if (sealed(m_chat->replyingChatID()))
            m_chat->stopReply();
        if (sealed(m_chat->compactor().chatID()))
            m_chat->compactor().cancel();
    });
    // Images follow the key and their chats' locks; an image waits in the composer of the
    // chat it was attached to only.
    connect(m_locks.get(), &FolderLocks::keyChanged, m_images.get(), &ChatImages::keyChanged);
    connect(m_locks.get(), &FolderLocks::rowsResealed, m_images.get(), &ChatImages::matchImages);
    connect(m_tree.get(), &ChatTree::chatOpened, m_images.get(), &ChatImages::chatOpened);
    // Deleted messages leave their pictures behind until their rows are gone.
    connect(m_tree.get(), &ChatTree::purgeFinished, m_images.get(), &ChatImages::pruneImages);
    // A timer belongs to the chat on screen and to the script it runs.
    connect(m_tree.get(), &ChatTree::chatOpened, m_scriptTimer.get(), &ScriptTimer::restart);
    connect(m_scripts.get(), &ScriptLibrary::attachmentsChanged, m_scriptTimer.get(), &ScriptTimer::restart);
    // What search may show changes with the tree and with every lock, opened or closed.
    connect(m_tree.get(), &ChatTree::treeChanged, m_search.get(), &Search::refresh);
    connect(m_locks.get(), &FolderLocks::keyChanged, m_search.get(), &Search::refresh);
    connect(m_locks.get(), &FolderLocks::lockedFoldersChanged, m_search.get(), &Search::refresh);
    connect(m_locks.get(), &FolderLocks::workingChanged, m_search.get(), &Search::refresh);
    connect(m_models.get(), &ModelsController::busyChanged, this, &AppModel::activityChanged);
    connect(this, &AppModel::activityChanged, this, &AppModel::readinessChanged);
    connect(m_status.get(), &StatusBanner::changed, this, &AppModel::readinessChanged);
    connect(m_models.get(), &ModelsController::installedChanged, this, &AppModel::readinessChanged);
    connect(m_settings.get(), &AppSettings::changed, this, &AppModel::readinessChanged);

    // 6. The first chat that is not sealed, the removal of what an earlier run deleted, the
    //    pictures no message names, and the scrub of a lock change that quitting cut short.
    m_tree->selectFirstOpenChat();
    // What the model can run on, asked in the background; the first reply waits for it.
    m_compute->probe();
    m_tree->startPurge();
    m_images->pruneImages();
    m_locks->scrubIfNeeded();

    // 7. Open locked folders close again on sleep, screen lock, a session switch and idle
    //    time; idle time is watched only while one is open.
    m_autoLock = std::make_unique<AutoLock>(QDBusConnection::systemBus(), QDBusConnection::sessionBus());
    connect(m_autoLock.get(), &AutoLock::lockRequested, m_locks.get(), &FolderLocks::lockAll);
    connect(m_locks.get(), &FolderLocks::keyChanged, this, [this] { m_autoLock->setArmed(m_locks->isUnlocked()); });
}

AppModel::~AppModel()
{
    // Work is stopped while every area is still there, since a cancelled request may end at
    // once and report to the others. Tasks that wake later find their area gone and end; the
    // areas go before the services they use.
    m_scriptTimer->stop();
    m_speech->stopSpeaking();
    m_chat->stopReply();
    m_chat->compactor().cancel();
    m_tree->cancelPurge();
    m_models->cancelInstall();
}

bool AppModel::isBusy() const
{
    return m_chat->isGenerating() || m_speech->isRecording() || m_speech->isTranscribing() || m_models->isBusy()
           || m_isErasing || m_locks->isSealing();
}

Readiness::Value AppModel::readiness() const
{
    return Readiness::of({
        .statusIsError = m_status->isError(),
        .isBusy = isBusy(),
        .hasLanguageModel = m_models->languageModel().has_value(),
        .modelsMissing = !m_models->missingModels().isEmpty(),
    });
}

bool AppModel::isStorageBusy() const
{
    return m_isErasing || m_locks->isSealing();
}

void AppModel::setErasing(bool erasing)
{
    m_isErasing = erasing;
    Q_EMIT activityChanged();
}
