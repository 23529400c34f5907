#include "app/models_controller.h"

#include "app/app_settings.h"
#include "app/status_banner.h"
#include "models/model_catalogue.h"
#include "models/model_store.h"
#include "models/model_texts.h"

#include <QFileInfo>
#include <QPointer>

namespace {

QString roleName(ModelSpec::Role role)
{
    switch (role) {
    case ModelSpec::Role::Chat:
        return QStringLiteral("chat");
    case ModelSpec::Role::Transcription:
        return QStringLiteral("dictation");
    case ModelSpec::Role::Vision:
        return QStringLiteral("vision");
    }
    return {};
}

} // namespace

ModelsController::ModelsController(ModelStore &store, AppSettings &settings, StatusBanner &status, QObject *parent)
    : QObject(parent)
    , m_store(store)
    , m_settings(settings)
    , m_status(status)
{
}

bool ModelsController::hasChatModel() const
{
    return !m_store.installedChatModels().isEmpty();
}

bool ModelsController::hasImageSupport() const
{
    const auto model = languageModel();
    return model && installedProjector(*model);
}

QVariantList ModelsController::chatModelChoices() const
{
    QVariantList choices;
    for (const ModelSpec &spec : m_store.catalogue()) {
        if (spec.role != ModelSpec::Role::Chat)
            continue;
        choices.append(QVariantMap{{QStringLiteral("id"), spec.id},
                                   {QStringLiteral("name"), spec.name},
                                   {QStringLiteral("byteCount"), spec.byteCount},
                                   {QStringLiteral("installed"), m_store.isInstalled(spec)}});
    }
    return choices;
}

QVariantList ModelsController::modelChoices() const
{
    const auto chat = languageModel();
    const auto dictation = whisperModel();
    QVariantList choices;
    for (const ModelSpec &spec : m_store.catalogue()) {
        const bool selected = (chat && chat->id == spec.id) || (dictation && dictation->id == spec.id);
        choices.append(QVariantMap{{QStringLiteral("id"), spec.id},
                                   {QStringLiteral("name"), spec.name},
                                   {QStringLiteral("role"), roleName(spec.role)},
                                   {QStringLiteral("byteCount"), spec.byteCount},
                                   {QStringLiteral("installed"), m_store.isInstalled(spec)},
                                   {QStringLiteral("selected"), selected}});
    }
    return choices;
}

std::optional<ModelSpec> ModelsController::languageModel() const
{
    return m_store.languageModel(m_settings.selectedModelID());
}

std::optional<ModelSpec> ModelsController::whisperModel() const
{
    return m_store.whisperModel(m_settings.selectedWhisperModelID());
}

std::optional<ModelSpec> ModelsController::installedProjector(const ModelSpec &chatModel) const
{
    const auto projector = ModelCatalogue::projectorOf(chatModel, m_store.catalogue());
    return projector && m_store.isInstalled(*projector) ? projector : std::nullopt;
}

QString ModelsController::filePath(const ModelSpec &spec) const
{
    return m_store.filePath(spec);
}

QList<ModelSpec> ModelsController::missingModels() const
{
    return m_store.missingModels(m_settings.selectedModelID());
}

void ModelsController::normalizeSelections()
{
    if (const auto model = languageModel(); model && model->id != m_settings.selectedModelID())
        m_settings.selectModel(model->id);
    if (const auto model = whisperModel(); model && model->id != m_settings.selectedWhisperModelID())
        m_settings.selectWhisperModel(model->id);
}

void ModelsController::setBusyModel(std::optional<QString> id, qint64 total)
{
    m_busyModelID = std::move(id);
    m_downloadedBytes = 0;
    m_downloadTotalBytes = total;
    Q_EMIT busyChanged();
    Q_EMIT progressChanged();
}

std::function<void(qint64)> ModelsController::reportProgress()
{
    return [this](qint64 bytes) {
        m_downloadedBytes = bytes;
        Q_EMIT progressChanged();
    };
}

void ModelsController::finish(std::exception_ptr failure, const QString &success)
{
    Q_EMIT installedChanged();
    normalizeSelections();
    if (m_busyModelID)
        setBusyModel(std::nullopt, 0);
    if (!failure) {
        m_status.show(success);
        return;
    }
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception &error) {
        m_status.showError(error);
    }
}

void ModelsController::install(const QStringList &ids)
{
    // One installation at a time; the window offers none while another runs.
    if (m_busyModelID)
        return;
    QList<ModelSpec> requested;
    for (const QString &id : ids) {
        if (const auto spec = ModelCatalogue::find(id, m_store.catalogue()))
            requested << *spec;
    }
    const QList<ModelSpec> workList = m_store.installWorkList(requested);
    if (workList.isEmpty())
        return;
    m_installCancel = CancellationToken();
    runInstall(workList, m_installCancel);
}

QCoro::Task<> ModelsController::runInstall(QList<ModelSpec> workList, CancellationToken cancel)
{
    const QPointer<ModelsController> alive(this);
    std::exception_ptr failure;
    for (const ModelSpec &spec : workList) {
        setBusyModel(spec.id, spec.byteCount);
        m_status.show(ModelTexts::downloading(spec));
        try {
            co_await m_store.install(spec, reportProgress(), cancel);
        } catch (const std::exception &) {
            failure = std::current_exception();
        }
        if (!alive)
            co_return;
        Q_EMIT installedChanged();
        if (failure)
            break;
    }
    finish(failure, ModelTexts::ready(workList));
}

void ModelsController::cancelInstall()
{
    m_installCancel.cancel();
}

void ModelsController::installFromFile(const QString &path)
{
    if (m_busyModelID)
        return;
    m_installCancel = CancellationToken();
    runInstallFromFile(path, m_installCancel);
}

QCoro::Task<> ModelsController::runInstallFromFile(QString path, CancellationToken cancel)
{
    const QFileInfo file(path);
    setBusyModel(file.fileName(), file.size());
    m_status.show(QStringLiteral("Checking ") + file.fileName() + QChar(0x2026));
    std::exception_ptr failure;
    std::optional<ModelSpec> installed;
    const QPointer<ModelsController> alive(this);
    try {
        installed = co_await m_store.installFromFile(path, reportProgress(), cancel);
    } catch (const std::exception &) {
        failure = std::current_exception();
    }
    if (!alive)
        co_return;
    finish(failure, installed ? ModelTexts::ready({*installed}) : QString());
}

void ModelsController::remove(const QString &id)
{
    if (m_busyModelID)
        return;
    const auto spec = ModelCatalogue::find(id, m_store.catalogue());
    if (!spec)
        return;
    std::exception_ptr failure;
    try {
        // Decided before the removal, while the model still counts as installed.
        const auto projector = m_store.projectorToRemove(*spec);
        m_store.remove(*spec);
        if (projector)
            m_store.remove(*projector);
    } catch (const std::exception &) {
        failure = std::current_exception();
    }
    finish(failure, ModelTexts::removed(*spec));
}
