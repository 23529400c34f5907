// Erasing all data: the settings screen's last resort, after the user confirmed.
#include "app/app_model.h"

#include "app/app_paths.h"
#include "app/settings_rules.h"
#include "inference/inference_engine.h"
#include "platform/worker_thread.h"
#include "storage/database.h"

void AppModel::eraseAllData()
{
    eraseAll().then([this, alive = QPointer<AppModel>(this)](bool erased) {
        if (alive)
            Q_EMIT erasingFinished(erased);
    });
}

QCoro::Task<bool> AppModel::eraseAll()
{
    if (isBusy())
        co_return false;
    const QPointer<AppModel> alive(this);
    m_isErasing = true;
    Q_EMIT activityChanged();
    setStatus(QStringLiteral("Erasing all Corvane data…"), false);

    // Background work stops first: compaction and the removal of deleted folders are
    // cancelled, the inference server shut down and speech silenced, so that nothing writes
    // while files and rows go.
    cancelCompaction();
    cancelPurge();
    m_inference->shutdown();

    bool erased = true;
    try {
        // Files: models, then the script library (which gets its example script back), then
        // the images with their cache. The first failure stops here; what is gone stays gone.
        AppPaths::removeContents(m_modelsDirectory);
        AppPaths::removeContents(m_imagesDirectory);

        // Rows: all of them in one transaction, then the file is compacted so that no freed
        // page keeps old text. A million messages take seconds, so this runs on a worker
        // thread with a connection of its own while the window stays live; this model's
        // connection is left alone until it is done.
        const QString path = m_supportDirectory + QStringLiteral("/chats.sqlite");
        co_await onWorkerThread<bool>([path] {
            Database::eraseFile(path);
            return true;
        });
        throwIfGone(alive);
    } catch (const std::exception &error) {
        if (!alive)
            co_return false;
        showError(error);
        erased = false;
    }
    m_isErasing = false;
    Q_EMIT activityChanged();
    if (erased)
        resetAfterErase();
    else
        // Whatever is still queued for removal goes on being removed.
        startPurge();
    co_return erased;
}

void AppModel::resetAfterErase()
{
    m_deletions.clear();
    // The model starts over. Unlike a first start, no model or voice is selected: none is
    // installed any more.
    m_vault.reset();
    m_unlockedFolderIDs.clear();
    m_lockSheet.reset();
    Q_EMIT lockSheetChanged();
    m_selectedChatID.reset();
    m_selectedNodeID.reset();
    m_messages.clear();
    m_pendingImage.reset();
    setComposer(QString());
    m_liveDisplay.clear();
    setLiveReply(QString());
    m_globalPrompt = Settings::defaultGlobalPrompt;
    m_globalAgentName = Settings::defaultAgentName;
    m_temperature = Settings::defaultTemperature;
    m_maxResponseTokens = Settings::defaultMaxResponseTokens;
    m_contextTokens = Settings::defaultContextTokens;
    m_selectedModelID.clear();
    m_selectedWhisperModelID.clear();
    m_selectedVoiceID.clear();
    Q_EMIT installedModelsChanged();
    Q_EMIT settingsChanged();
    Q_EMIT messagesChanged();
    Q_EMIT selectionChanged();

    reload();
    if (!nodes().isEmpty()) {
        m_selectedNodeID = nodes().first().id;
        Q_EMIT selectionChanged();
    }
    setStatus(QStringLiteral("All Corvane data erased"), false);
}
