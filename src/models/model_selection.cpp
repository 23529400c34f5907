#include "models/model_selection.h"

namespace ModelSelection {

QList<ModelSpec> installed(const QList<ModelSpec> &catalogue, const QSet<QString> &installedIDs, ModelSpec::Role role)
{
    QList<ModelSpec> result;
    for (const ModelSpec &spec : catalogue) {
        if (spec.role == role && installedIDs.contains(spec.id))
            result.append(spec);
    }
    return result;
}

std::optional<ModelSpec> chosen(const QList<ModelSpec> &candidates, const QString &selectedID)
{
    for (const ModelSpec &spec : candidates) {
        if (spec.id == selectedID)
            return spec;
    }
    if (candidates.isEmpty())
        return std::nullopt;
    return candidates.first();
}

QList<ModelSpec> missing(const QList<ModelSpec> &catalogue, const QSet<QString> &installedIDs,
                         const QString &selectedModelID)
{
    QList<ModelSpec> result;
    const auto starter = ModelCatalogue::find(QStringLiteral("qwen-0.8b"), catalogue);
    std::optional<ModelSpec> chat = chosen(installed(catalogue, installedIDs, ModelSpec::Role::Chat), selectedModelID);
    if (!chat) {
        if (starter)
            result.append(*starter);
        chat = starter;
    }
    if (chat) {
        const auto projector = ModelCatalogue::projectorOf(*chat, catalogue);
        if (projector && !installedIDs.contains(projector->id))
            result.append(*projector);
    }
    if (installed(catalogue, installedIDs, ModelSpec::Role::Transcription).isEmpty()) {
        if (const auto whisper = ModelCatalogue::find(QStringLiteral("whisper-base"), catalogue))
            result.append(*whisper);
    }
    return result;
}

QList<ModelSpec> installWorkList(const QList<ModelSpec> &requested, const QList<ModelSpec> &catalogue,
                                 const QSet<QString> &installedIDs)
{
    QList<ModelSpec> result;
    QSet<QString> listed;
    const auto add = [&](const ModelSpec &spec) {
        if (installedIDs.contains(spec.id) || listed.contains(spec.id))
            return;
        listed.insert(spec.id);
        result.append(spec);
    };
    for (const ModelSpec &spec : requested) {
        add(spec);
        if (const auto projector = ModelCatalogue::projectorOf(spec, catalogue))
            add(*projector);
    }
    return result;
}

std::optional<ModelSpec> projectorToRemove(const ModelSpec &removed, const QList<ModelSpec> &catalogue,
                                           const QSet<QString> &installedIDs)
{
    if (removed.role != ModelSpec::Role::Chat)
        return std::nullopt;
    const auto projector = ModelCatalogue::projectorOf(removed, catalogue);
    if (!projector || !installedIDs.contains(projector->id))
        return std::nullopt;
    for (const ModelSpec &other : installed(catalogue, installedIDs, ModelSpec::Role::Chat)) {
        if (other.id == removed.id)
            continue;
        const auto shared = ModelCatalogue::projectorOf(other, catalogue);
        if (shared && shared->id == projector->id)
            return std::nullopt;
    }
    return projector;
}

} // namespace ModelSelection
