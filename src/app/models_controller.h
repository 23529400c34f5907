#pragma once

#include "models/model_spec.h"
#include "platform/cancellation.h"

#include <QObject>
#include <QUrl>
#include <QVariantList>

#include <QCoro/QCoroTask>

#include <exception>
#include <functional>
#include <optional>

class AppSettings;
class ModelStore;
class StatusBanner;

/// Which models are installed and in use, and installing and removing them from Settings and
/// the first-run screen: one installation at a time, with progress, Cancel, and the chosen
/// models kept pointing at installed ones.
class ModelsController : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool hasChatModel READ hasChatModel NOTIFY installedChanged)
    Q_PROPERTY(bool hasImageSupport READ hasImageSupport NOTIFY installedChanged)
    Q_PROPERTY(QVariantList chatModelChoices READ chatModelChoices NOTIFY installedChanged)
    Q_PROPERTY(QVariantList modelChoices READ modelChoices NOTIFY installedChanged)
    Q_PROPERTY(QString busyModelID READ busyModelID NOTIFY busyChanged)
    Q_PROPERTY(qint64 downloadedBytes READ downloadedBytes NOTIFY progressChanged)
    Q_PROPERTY(qint64 downloadTotalBytes READ downloadTotalBytes NOTIFY progressChanged)

public:
    ModelsController(ModelStore &store, AppSettings &settings, StatusBanner &status, QObject *parent = nullptr);

    /// True when a chat model is installed; the window shows the first-run screen until then.
    bool hasChatModel() const;
    /// The chosen chat model's image support is installed.
    bool hasImageSupport() const;
    /// The catalogue's chat models, each as {id, name, byteCount, installed}.
    QVariantList chatModelChoices() const;
    /// Every catalogue entry for Settings, each as {id, name, role ("chat", "vision" or
    /// "dictation"), byteCount, installed, selected}.
    QVariantList modelChoices() const;

    /// The model being installed or checked; empty when none.
    QString busyModelID() const { return m_busyModelID.value_or(QString()); }
    bool isBusy() const { return m_busyModelID.has_value(); }
    qint64 downloadedBytes() const { return m_downloadedBytes; }
    qint64 downloadTotalBytes() const { return m_downloadTotalBytes; }

    /// The chat model replies use: the chosen one if installed, else the first installed.
    std::optional<ModelSpec> languageModel() const;
    /// The dictation model, by the same rule.
    std::optional<ModelSpec> whisperModel() const;
    /// The chat model's image support, when it is installed.
    std::optional<ModelSpec> installedProjector(const ModelSpec &chatModel) const;
    /// Where an installed model's file lies.
    QString filePath(const ModelSpec &spec) const;
    /// What a complete set-up still lacks: the chat model, its image support, dictation.
    QList<ModelSpec> missingModels() const;
    /// Points a choice that names no installed model at the first installed one.
    void normalizeSelections();

    /// Downloads the given catalogue entries, each chat model followed by its image support
    /// when missing, one after the other with progress in the status line.
    Q_INVOKABLE void install(const QStringList &ids);
    /// Stops the running installation; what is already installed stays.
    Q_INVOKABLE void cancelInstall();
    /// Installs a model file the user already has, when it is one of the catalogue's.
    Q_INVOKABLE void installFromFile(const QString &path);
    Q_INVOKABLE void installFromFileUrl(const QUrl &url) { installFromFile(url.toLocalFile()); }
    /// Removes a model, and its image support when no other installed model uses it.
    Q_INVOKABLE void remove(const QString &id);
    /// The models folder was emptied behind the store's back (erasing all data).
    void reloadInstalled() { Q_EMIT installedChanged(); }

Q_SIGNALS:
    void installedChanged();
    void busyChanged();
    void progressChanged();

private:
    QCoro::Task<> runInstall(QList<ModelSpec> workList, CancellationToken cancel);
    QCoro::Task<> runInstallFromFile(QString path, CancellationToken cancel);
    void setBusyModel(std::optional<QString> id, qint64 total);
    /// After an installation or removal: the lists, the choices, and the outcome.
    void finish(std::exception_ptr failure, const QString &success);
    /// Puts a download's or a check's progress into `downloadedBytes`.
    std::function<void(qint64)> reportProgress();

    ModelStore &m_store;
    AppSettings &m_settings;
    StatusBanner &m_status;
    CancellationToken m_installCancel;
    std::optional<QString> m_busyModelID;
    qint64 m_downloadedBytes = 0;
    qint64 m_downloadTotalBytes = 0;
};
