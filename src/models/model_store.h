#pragma once

#include "models/model_catalogue.h"
#include "models/model_store_error.h"
#include "platform/cancellation.h"

#include <QCoro/QCoroTask>
#include <QSet>

#include <functional>

/// The models folder and the only code that writes to it. Each installed model is the single
/// file `directory/fileName`; a file is installed only when its size and SHA-256 equal its
/// catalogue entry's, and a rejected file never touches the folder.
class ModelStore
{
public:
    using Error = ModelStoreError;
    /// Gets the bytes downloaded (or, for a local file, checked) so far.
    using Progress = std::function<void(qint64)>;

    /// A store on `directory` (created if missing). `catalogue` is the list of installable
    /// entries; the application always uses the built-in one.
    explicit ModelStore(QString directory, QList<ModelSpec> catalogue = ModelCatalogue::entries());

    const QString &directory() const { return m_directory; }
    const QList<ModelSpec> &catalogue() const { return m_catalogue; }
    /// Where `spec` lives once installed.
    QString filePath(const ModelSpec &spec) const;

    /// True when the file exists with exactly the catalogue's size. The digest was checked on
    /// installation and is not read again.
    bool isInstalled(const ModelSpec &spec) const;
    /// Ids of the installed catalogue entries.
    QSet<QString> installedIDs() const;

    /// Downloads `spec`, checks size and then SHA-256, and moves it into place. Throws
    /// ModelStoreError, SystemError (network or file system) or CancelledError.
    QCoro::Task<> install(ModelSpec spec, Progress progress = {}, CancellationToken cancel = {});

    /// Installs a model file the user already has (no network): accepted when its size and
    /// SHA-256 equal an entry's, then renamed into place under that entry's file name, or
    /// copied when it lies on another file system. `progress` follows the hashing. Returns the
    /// entry. A file named like an entry but with other contents gets the download's size or
    /// SHA-256 message; any other file "This file is not one of Corvane's models".
    QCoro::Task<ModelSpec> installFromFile(QString path, Progress progress = {}, CancellationToken cancel = {});

    /// Deletes the model's file; a missing file is not an error. Throws SystemError.
    void remove(const ModelSpec &spec);

    /// Installed chat models, in catalogue order.
    QList<ModelSpec> installedChatModels() const;
    /// Installed dictation models, in catalogue order.
    QList<ModelSpec> installedTranscriptionModels() const;
    /// The chat model in use: the selected one if installed, else the first installed.
    std::optional<ModelSpec> languageModel(const QString &selectedModelID) const;
    /// The dictation model in use, by the same rule.
    std::optional<ModelSpec> whisperModel(const QString &selectedWhisperModelID) const;
    /// What a complete set-up still lacks (see ModelSelection::missing).
    QList<ModelSpec> missingModels(const QString &selectedModelID) const;
    /// The downloads for installing `requested`, each followed by its missing projector.
    QList<ModelSpec> installWorkList(const QList<ModelSpec> &requested) const;
    /// The projector that should go when `removed` goes, if any.
    std::optional<ModelSpec> projectorToRemove(const ModelSpec &removed) const;

private:
    QString m_directory;
    QList<ModelSpec> m_catalogue;
};
