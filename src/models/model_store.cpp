#include "models/model_store.h"

#include "models/file_digest.h"
#include "models/file_placement.h"
#include "models/model_selection.h"
#include "models/progress_download.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

/// The downloaded temporary file goes away however the installation ends; after a rename
/// there is nothing left to remove.
class TemporaryFile
{
public:
    explicit TemporaryFile(QString path)
        : m_path(std::move(path))
    {
    }
    ~TemporaryFile() { QFile::remove(m_path); }
    TemporaryFile(const TemporaryFile &) = delete;
    TemporaryFile &operator=(const TemporaryFile &) = delete;

private:
    QString m_path;
};

} // namespace

ModelStore::ModelStore(QString directory, QList<ModelSpec> catalogue)
    : m_directory(std::move(directory))
    , m_catalogue(std::move(catalogue))
{
    QDir().mkpath(m_directory);
}

QString ModelStore::filePath(const ModelSpec &spec) const
{
    return QDir(m_directory).filePath(spec.fileName);
}

bool ModelStore::isInstalled(const ModelSpec &spec) const
{
    const QFileInfo info(filePath(spec));
    return info.isFile() && info.size() == spec.byteCount;
}

QSet<QString> ModelStore::installedIDs() const
{
    QSet<QString> ids;
    for (const ModelSpec &spec : m_catalogue) {
        if (isInstalled(spec))
            ids.insert(spec.id);
    }
    return ids;
}

QCoro::Task<> ModelStore::install(ModelSpec spec, Progress progress, CancellationToken cancel)
{
    const QUrl url = ModelCatalogue::downloadUrl(spec);
    if (url.isEmpty())
        throw Error::invalidURL();
    const QString downloaded = co_await ProgressDownload::run(url, progress, cancel);
    const TemporaryFile cleanup(downloaded);

    // The size first: a short or wrong file is turned away without reading it through.
    const QFileInfo info(downloaded);
    if (!info.exists() || info.size() != spec.byteCount)
        throw Error::invalidSize();
    const QString digest = co_await FileDigest::sha256InBackground(downloaded, {}, cancel);
    if (digest != spec.sha256)
        throw Error::invalidHash();

    QDir().mkpath(m_directory);
    co_await FilePlacement::place(downloaded, filePath(spec), cancel);
}

QCoro::Task<ModelSpec> ModelStore::installFromFile(QString path, Progress progress, CancellationToken cancel)
{
    {
        QFile probe(path);
        if (!probe.open(QIODevice::ReadOnly))
            throw SystemError(probe.errorString());
    }
    const QFileInfo info(path);
    if (!info.isFile())
        throw Error::unknownFile();
    const qint64 size = info.size();

    QList<ModelSpec> sameSize;
    std::optional<ModelSpec> sameName;
    for (const ModelSpec &spec : m_catalogue) {
        if (spec.byteCount == size)
            sameSize.append(spec);
        if (spec.fileName == info.fileName())
            sameName = spec;
    }
    // A file carrying a model's name is most likely a broken copy of it: say what is wrong
    // with it rather than calling it a stranger.
    if (sameSize.isEmpty())
        throw sameName ? Error::invalidSize() : Error::unknownFile();

    const QString digest = co_await FileDigest::sha256InBackground(path, progress, cancel);
    std::optional<ModelSpec> match;
    for (const ModelSpec &spec : sameSize) {
        if (spec.sha256 == digest)
            match = spec;
    }
    if (!match)
        throw sameName && sameName->byteCount == size ? Error::invalidHash() : Error::unknownFile();

    QDir().mkpath(m_directory);
    co_await FilePlacement::place(path, filePath(*match), cancel);
    co_return *match;
}

void ModelStore::remove(const ModelSpec &spec)
{
    QFile file(filePath(spec));
    if (!file.exists())
        return;
    if (!file.remove())
        throw SystemError(file.errorString());
}

QList<ModelSpec> ModelStore::installedChatModels() const
{
    return ModelSelection::installed(m_catalogue, installedIDs(), ModelSpec::Role::Chat);
}

QList<ModelSpec> ModelStore::installedTranscriptionModels() const
{
    return ModelSelection::installed(m_catalogue, installedIDs(), ModelSpec::Role::Transcription);
}

std::optional<ModelSpec> ModelStore::languageModel(const QString &selectedModelID) const
{
    return ModelSelection::chosen(installedChatModels(), selectedModelID);
}

std::optional<ModelSpec> ModelStore::whisperModel(const QString &selectedWhisperModelID) const
{
    return ModelSelection::chosen(installedTranscriptionModels(), selectedWhisperModelID);
}

QList<ModelSpec> ModelStore::missingModels(const QString &selectedModelID) const
{
    return ModelSelection::missing(m_catalogue, installedIDs(), selectedModelID);
}

QList<ModelSpec> ModelStore::installWorkList(const QList<ModelSpec> &requested) const
{
    return ModelSelection::installWorkList(requested, m_catalogue, installedIDs());
}

std::optional<ModelSpec> ModelStore::projectorToRemove(const ModelSpec &removed) const
{
    return ModelSelection::projectorToRemove(removed, m_catalogue, installedIDs());
}
