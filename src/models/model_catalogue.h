#pragma once

#include "models/model_spec.h"

#include <QList>
#include <QUrl>

#include <optional>

/// The fixed list of models Corvane can install. It is compiled in and never changes at run
/// time; only the hosting service's base address can be replaced, through the environment
/// variable CORVANE_MODEL_MIRROR (a mirror, or a local server in tests).
namespace ModelCatalogue {

/// The 16 entries in display order, which is also the order of every fall-back.
const QList<ModelSpec> &entries();

/// The entry with exactly this id.
std::optional<ModelSpec> find(const QString &id, const QList<ModelSpec> &catalogue = entries());

/// The vision projector that lets `spec` read images: the entry whose id is `spec.id` with every
/// "-abliterated" removed and "-vision" appended. Projectors themselves have none.
std::optional<ModelSpec> projectorOf(const ModelSpec &spec, const QList<ModelSpec> &catalogue = entries());

/// The base address downloads are made from, ending in "/".
QString baseAddress();

/// Where `spec` is downloaded from: the base address followed by `spec.url`. An empty URL when
/// the result is not a usable http or https address.
QUrl downloadUrl(const ModelSpec &spec);

} // namespace ModelCatalogue
