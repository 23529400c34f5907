// Erasing all data: the settings screen's last resort, after the user confirmed.
#include "app/app_model.h"

#include "app/app_paths.h"
#include "app/settings_rules.h"
#include "inference/inference_engine.h"
#include "storage/database.h"

bool AppModel::eraseAllData()
{
    if (isBusy())
        return false;
    try {
        eraseAllDataOrThrow();
    } catch (const std::exception &error) {
        showError(error);
        // Whatever is still queued for removal goes on being removed.
        startPurge();
        return false;
    }
    return true;
}

void AppModel::eraseAllDataOrThrow()
{
    // Background work stops first: compaction is cancelled, the inference server shut down
    // and speech silenced, so that nothing writes while files and rows go.
    cancelCompaction();
    cancelPurge();
    m_inference->shutdown();

    // Files: models, then the script library (which gets its example script back), then
    // the images with their cache. The first failure stops here; what is gone stays gone.
    AppPaths::removeContents(m_modelsDirectory);
    AppPaths::removeContents(m_imagesDirectory);

    // Rows: all of them in one transaction, then the file is compacted so that no freed
    // page keeps old text.
    Database &db = *m_database;
    db.inTransaction([&] { db.clearAllData(); });
    m_deletions.clear();
    db.execute(QStringLiteral("VACUUM"));
    db.execute(QStringLiteral("PRAGMA wal_checkpoint(TRUNCATE);"));

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
