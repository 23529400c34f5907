#include "app/app_model.h"

#include "app/app_paths.h"
#include "app/settings_rules.h"
#include "inference/inference_engine.h"
#include "models/model_store.h"
#include "storage/database.h"

#include <QTimer>

AppModel::AppModel(QObject *parent)
    : AppModel(ModelCatalogue::entries(), parent)
{
}

AppModel::AppModel(QList<ModelSpec> catalogue, QObject *parent)
    : QObject(parent)
    // 1. Every field takes its default.
    , m_globalPrompt(Settings::defaultGlobalPrompt)
    , m_globalAgentName(Settings::defaultAgentName)
    , m_temperature(Settings::defaultTemperature)
    , m_maxResponseTokens(Settings::defaultMaxResponseTokens)
    , m_contextTokens(Settings::defaultContextTokens)
    , m_selectedModelID(Settings::defaultModelID)
    , m_selectedWhisperModelID(Settings::defaultWhisperModelID)
{
    for (auto signal : {&AppModel::statusChanged, &AppModel::activityChanged,
                        &AppModel::installedModelsChanged, &AppModel::settingsChanged})
        connect(this, signal, this, &AppModel::readinessChanged);
    for (auto signal : {&AppModel::selectionChanged, &AppModel::treeChanged, &AppModel::settingsChanged})
        connect(this, signal, this, &AppModel::currentChatChanged);
    for (auto signal : {&AppModel::composerChanged, &AppModel::activityChanged, &AppModel::selectionChanged})
        connect(this, signal, this, &AppModel::canSendChanged);
    m_liveReplyTimer = new QTimer(this);
    m_liveReplyTimer->setSingleShot(true);
    m_liveReplyTimer->setInterval(30);
    connect(m_liveReplyTimer, &QTimer::timeout, this, &AppModel::liveReplyChanged);

    // 2. The inference and speech engines, before anything can fail. The speech engine joins
    //    here with spoken replies.
    m_inference = std::make_unique<InferenceEngine>();

    // 3. The database; a failure ends start-up.
    m_supportDirectory = AppPaths::supportDirectory();
    m_database = std::make_unique<Database>(m_supportDirectory + QStringLiteral("/chats.sqlite"));

    // 4. The stores and their folders: models, the script library, images.
    m_modelsDirectory = AppPaths::directory(QStringLiteral("Models"));
    m_modelStore = std::make_unique<ModelStore>(m_modelsDirectory, std::move(catalogue));
    m_imagesDirectory = AppPaths::directory(QStringLiteral("Images"));

    // 5. Stored settings, each checked against its accepted values.
    readSettings();
    normalizeModelSelections();

    // 6. The tree and the first chat that is not sealed; script timers and auto-lock start
    //    once those subsystems are connected.
    //    Folders and chats deleted in an earlier run whose rows are not all gone stay hidden
    //    and their removal goes on.
    m_deletions.load(*m_database);
    reload();
    selectFirstOpenChat();
    startPurge();
}

AppModel::~AppModel()
{
    // Running tasks see their cancellation and stop at their next await.
    stopReply();
    cancelCompaction();
    cancelPurge();
}

bool AppModel::isBusy() const
{
    return m_isGenerating || m_isRecording || m_isTranscribing || m_busyModelID.has_value() || m_isErasing;
}

Readiness::Value AppModel::readiness() const
{
    return Readiness::of({
        .statusIsError = m_statusIsError,
        .isBusy = isBusy(),
        .hasLanguageModel = languageModel().has_value(),
        .modelsMissing = !missingModels().isEmpty(),
    });
}

void AppModel::setStatus(const QString &text, bool isError)
{
    if (m_status == text && m_statusIsError == isError)
        return;
    m_status = text;
    m_statusIsError = isError;
    Q_EMIT statusChanged();
}

void AppModel::showError(const CorvaneError &error)
{
    setStatus(error.description(), true);
}

void AppModel::showError(const std::exception &error)
{
    if (const auto *known = dynamic_cast<const CorvaneError *>(&error))
        showError(*known);
    else
        setStatus(QString::fromUtf8(error.what()), true);
}
