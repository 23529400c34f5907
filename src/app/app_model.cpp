#include "app/app_model.h"

#include "app/app_paths.h"

AppModel::AppModel(QObject *parent)
    : QObject(parent)
    , m_supportDirectory(AppPaths::supportDirectory())
{
}

bool AppModel::hasChatModel() const
{
    // Models are installed only through the model store, which this build does not carry
    // yet, so no chat model can be present.
    return false;
}
