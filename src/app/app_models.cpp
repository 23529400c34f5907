// Which models are installed and in use, and installing and removing them from Settings and
// the first-run screen.
#include "app/app_model.h"

#include "app/settings_rules.h"
#include "models/model_store.h"
#include "models/model_texts.h"

#include <QFileInfo>

namespace {

/// The user-facing text of any error an installation can end with.
QString describe(const std::exception &error)
{
    if (const auto *known = dynamic_cast<const CorvaneError *>(&error))
        return known->description();
    return QString::fromUtf8(error.what());
}

QStringList idsOf(const QList<ModelSpec> &specs)
{
    QStringList ids;
    for (const ModelSpec &spec : specs)
        ids << spec.id;
    return ids;
}

} // namespace

bool AppModel::hasChatModel() const
{
    return !m_modelStore->installedChatModels().isEmpty();
}

QStringList AppModel::installedChatModelIDs() const
{
    return idsOf(m_modelStore->installedChatModels());
}

QStringList AppModel::installedTranscriptionModelIDs() const
{
    return idsOf(m_modelStore->installedTranscriptionModels());
}

QStringList AppModel::availableVoiceIDs() const
{
    // The speech engine lists the system's voices; without it only the default voice
    // (the empty id) can be chosen.
    return {};
}

QVariantList AppModel::chatModelChoices() const
{
    QVariantList choices;
    for (const ModelSpec &spec : m_modelStore->catalogue()) {
        if (spec.role != ModelSpec::Role::Chat)
            continue;
        choices.append(QVariantMap{{QStringLiteral("id"), spec.id},
                                   {QStringLiteral("name"), spec.name},
                                   {QStringLiteral("byteCount"), spec.byteCount},
                                   {QStringLiteral("installed"), m_modelStore->isInstalled(spec)}});
    }
    return choices;
}

std::optional<ModelSpec> AppModel::languageModel() const
{
    return m_modelStore->languageModel(m_selectedModelID);
}

std::optional<ModelSpec> AppModel::whisperModel() const
{
    return m_modelStore->whisperModel(m_selectedWhisperModelID);
}

QList<ModelSpec> AppModel::missingModels() const
{
    return m_modelStore->missingModels(m_selectedModelID);
}

void AppModel::normalizeModelSelections()
{
    if (const auto model = languageModel(); model && model->id != m_selectedModelID) {
        m_selectedModelID = model->id;
        Q_EMIT settingsChanged();
        storeSetting(Settings::modelIDKey, model->id);
    }
    if (const auto model = whisperModel(); model && model->id != m_selectedWhisperModelID) {
        m_selectedWhisperModelID = model->id;
        Q_EMIT settingsChanged();
        storeSetting(Settings::whisperModelIDKey, model->id);
    }
}

void AppModel::setBusyModel(std::optional<QString> id, qint64 total)
{
    m_busyModelID = std::move(id);
    m_downloadedBytes = 0;
    m_downloadTotalBytes = total;
    Q_EMIT activityChanged();
    Q_EMIT downloadProgressChanged();
}

std::function<void(qint64)> AppModel::reportProgress()
{
    return [this](qint64 bytes) {
        m_downloadedBytes = bytes;
        Q_EMIT downloadProgressChanged();
    };
}

void AppModel::install(const QStringList &ids)
{
    // One installation at a time; the window offers none while another runs.
    if (m_busyModelID)
        return;
    QList<ModelSpec> requested;
    for (const QString &id : ids) {
        if (const auto spec = ModelCatalogue::find(id, m_modelStore->catalogue()))
            requested << *spec;
    }
    const QList<ModelSpec> workList = m_modelStore->installWorkList(requested);
    if (workList.isEmpty())
        return;
    m_installCancel = CancellationToken();
    runInstall(workList, m_installCancel);
}

QCoro::Task<> AppModel::runInstall(QList<ModelSpec> workList, CancellationToken cancel)
{
    const QPointer<AppModel> alive(this);
    std::optional<QString> failure;
    for (const ModelSpec &spec : workList) {
        setBusyModel(spec.id, spec.byteCount);
        setStatus(ModelTexts::downloading(spec), false);
        try {
            co_await m_modelStore->install(spec, reportProgress(), cancel);
        } catch (const std::exception &error) {
            failure = describe(error);
        }
        if (!alive)
            co_return;
        Q_EMIT installedModelsChanged();
        if (failure)
            break;
    }
    normalizeModelSelections();
    setBusyModel(std::nullopt, 0);
    if (failure)
        setStatus(*failure, true);
    else
        setStatus(ModelTexts::ready(workList), false);
}

void AppModel::cancelInstall()
{
    m_installCancel.cancel();
}

void AppModel::installFromFile(const QString &path)
{
    if (m_busyModelID)
        return;
    m_installCancel = CancellationToken();
    runInstallFromFile(path, m_installCancel);
}

QCoro::Task<> AppModel::runInstallFromFile(QString path, CancellationToken cancel)
{
    const QFileInfo file(path);
    setBusyModel(file.fileName(), file.size());
    setStatus(QStringLiteral("Checking ") + file.fileName() + QChar(0x2026), false);
    std::optional<QString> failure;
    std::optional<ModelSpec> installed;
    const QPointer<AppModel> alive(this);
    try {
        installed = co_await m_modelStore->installFromFile(path, reportProgress(), cancel);
    } catch (const std::exception &error) {
        failure = describe(error);
    }
    if (!alive)
        co_return;
    Q_EMIT installedModelsChanged();
    normalizeModelSelections();
    setBusyModel(std::nullopt, 0);
    if (failure)
        setStatus(*failure, true);
    else
        setStatus(ModelTexts::ready({*installed}), false);
}

void AppModel::remove(const QString &id)
{
    if (m_busyModelID)
        return;
    const auto spec = ModelCatalogue::find(id, m_modelStore->catalogue());
    if (!spec)
        return;
    try {
        // Decided before the removal, while the model still counts as installed.
        const auto projector = m_modelStore->projectorToRemove(*spec);
        m_modelStore->remove(*spec);
        if (projector)
            m_modelStore->remove(*projector);
    } catch (const std::exception &error) {
        Q_EMIT installedModelsChanged();
        normalizeModelSelections();
        showError(error);
        return;
    }
    Q_EMIT installedModelsChanged();
    normalizeModelSelections();
    setStatus(ModelTexts::removed(*spec), false);
}
