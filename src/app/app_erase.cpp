// Erasing all data: the settings screen's last resort, after the user confirmed.
#include "app/app_model.h"

#include "app/app_paths.h"
#include "app/compactor.h"
#include "app/script_timer.h"
#include "inference/inference_engine.h"
#include "platform/worker_thread.h"
#include "storage/database.h"

#include <QPointer>

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
    setErasing(true);
    m_status->show(QStringLiteral("Erasing all Corvane data…"));

    // Background work stops first: compaction and the removal of deleted folders are
    // cancelled and the inference server shut down, so that nothing writes while files and
    // rows go.
    m_chat->compactor().cancel();
    m_scriptTimer->stop();
    m_tree->cancelPurge();
    m_inference->shutdown();
    m_speech->stopSpeaking();

    bool erased = true;
    try {
        // Files: models, scripts (the example comes back), then images. The first failure
        // stops here; what is gone stays gone.
        AppPaths::removeContents(m_modelsDirectory);
        AppPaths::removeContents(m_cartridgeLibrary->directory());
        m_cartridgeLibrary->addExample();
        AppPaths::removeContents(m_imagesDirectory);

        // Rows: all of them in one transaction, then the file is compacted so that no freed
        // page keeps old text. A million messages take seconds, so this runs on a worker
        // thread with a connection of its own while the window stays live; this model's
        // connection is left alone until it is done.
        // The work is a named local: g++ 12 destroys a temporary inside a co_await
        // expression twice.
        const QString path = m_supportDirectory + QStringLiteral("/chats.sqlite");
        auto erase = [path] {
            Database::eraseFile(path);
            return true;
        };
        co_await onWorkerThread<bool>(std::move(erase));
    } catch (const std::exception &error) {
        if (!alive)
            co_return false;
        m_status->showError(error);
        erased = false;
    }
    if (!alive)
        co_return false;
    setErasing(false);
    if (!erased) {
        // Whatever is still queued for removal goes on being removed.
        m_tree->startPurge();
        co_return false;
    }
    // Everything starts over. Unlike a first start, no model is chosen: none is installed
    // any more.
    m_locks->resetAfterErase();
    m_chat->resetAfterErase();
    m_settings->resetAfterErase();
    m_compute->resetAfterErase();
    m_appearance->resetAfterErase();
    m_models->reloadInstalled();
    m_tree->resetAfterErase();
    m_search->resetAfterErase();
    m_scripts->reload();
    m_status->show(QStringLiteral("All Corvane data erased"));
    co_return true;
}
