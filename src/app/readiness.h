#pragma once

#include <QObject>

/// What the status button shows: the first that applies of an error in the banner, work in
/// progress, no chat model at all, models still missing for a complete set-up, or ready.
namespace Readiness {
Q_NAMESPACE

enum Value {
    Error,
    Busy,
    NoChatModel,
    ModelsMissing,
    Ready,
};
Q_ENUM_NS(Value)

struct Inputs
{
    bool statusIsError = false;
    bool isBusy = false;
    bool hasLanguageModel = false;
    bool modelsMissing = false;
};

inline Value of(const Inputs &inputs)
{
    if (inputs.statusIsError)
        return Error;
    if (inputs.isBusy)
        return Busy;
    if (!inputs.hasLanguageModel)
        return NoChatModel;
    if (inputs.modelsMissing)
        return ModelsMissing;
    return Ready;
}

} // namespace Readiness
