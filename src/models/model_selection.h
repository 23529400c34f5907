#pragma once

#include "models/model_catalogue.h"

#include <QSet>

/// Which models are in use and which are still to be installed, computed from the catalogue
/// and the ids of the installed entries (`ModelStore::installedIDs()`). Every list comes back
/// fresh and in catalogue order, so fall-backs always prefer the earlier entry.
namespace ModelSelection {

/// Installed entries of one role.
QList<ModelSpec> installed(const QList<ModelSpec> &catalogue, const QSet<QString> &installedIDs, ModelSpec::Role role);

/// The entry of `candidates` whose id is `selectedID`, otherwise the first one; none when
/// `candidates` is empty. Used for the chat model and for the dictation model.
std::optional<ModelSpec> chosen(const QList<ModelSpec> &candidates, const QString &selectedID);

/// What a complete set-up still needs, in this order: "qwen-0.8b" when no chat model is
/// installed; the projector of the chat model in use (or of "qwen-0.8b") when it is not
/// installed; "whisper-base" when no dictation model is installed.
QList<ModelSpec> missing(const QList<ModelSpec> &catalogue, const QSet<QString> &installedIDs,
                         const QString &selectedModelID);

/// The downloads that installing `requested` takes: each entry followed by its projector,
/// leaving out what is installed already and anything listed before.
QList<ModelSpec> installWorkList(const QList<ModelSpec> &requested, const QList<ModelSpec> &catalogue,
                                 const QSet<QString> &installedIDs);

/// The projector to delete along with `removed`: its own, when installed and no other
/// installed chat model pairs with it.
std::optional<ModelSpec> projectorToRemove(const ModelSpec &removed, const QList<ModelSpec> &catalogue,
                                           const QSet<QString> &installedIDs);

} // namespace ModelSelection
