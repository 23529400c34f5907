#pragma once

#include <QObject>

/// What the status button shows: the first that applies of an error in the banner, work in
/// progress, no chat model at all, models still missing for a complete set-up, or ready.
class Readiness
{
    Q_GADGET

public:
    enum Value {
        Error,
        Busy,
        NoChatModel,
        ModelsMissing,
        Ready,
    };
    Q_ENUM(Value)

    struct Inputs
    {
        bool statusIsError = false;
        bool isBusy = false;
        bool hasLanguageModel = false;
        bool modelsMissing = false;
    };

    static Value of(const Inputs &inputs)
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
};
