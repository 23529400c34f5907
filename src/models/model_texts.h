#pragma once

#include "models/model_spec.h"

#include <QList>

/// The status-line texts of installing and removing models.
namespace ModelTexts {

/// "Downloading " + name + "…", while one entry of an installation is fetched.
inline QString downloading(const ModelSpec &spec)
{
    return QStringLiteral("Downloading ") + spec.name + QChar(0x2026);
}

/// After a successful installation: "Models ready" for several entries, else name + " ready".
inline QString ready(const QList<ModelSpec> &workList)
{
    if (workList.size() > 1)
        return QStringLiteral("Models ready");
    return workList.isEmpty() ? QString() : workList.first().name + QStringLiteral(" ready");
}

/// After a removal: name + " removed".
inline QString removed(const ModelSpec &spec)
{
    return spec.name + QStringLiteral(" removed");
}

} // namespace ModelTexts
