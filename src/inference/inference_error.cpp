#include "inference/inference_error.h"

#include <QLocale>

InferenceError InferenceError::requestFailed(int status)
{
    return {Case::RequestFailed,
            QStringLiteral("The local model rejected the request (HTTP %1)").arg(status), status};
}

InferenceError InferenceError::contextTooLong(qint64 contextTokens)
{
    return {Case::ContextTooLong,
            QStringLiteral("The prompt and latest message exceed the %1-token context. Choose a larger "
                           "context or shorten them.")
                .arg(QLocale().toString(contextTokens))};
}

InferenceError InferenceError::missingRuntime()
{
    return {Case::MissingRuntime, QStringLiteral("Missing local runtime: llama-server")};
}

InferenceError InferenceError::startFailed()
{
    return {Case::StartFailed, QStringLiteral("The local model could not start")};
}

InferenceError InferenceError::startTimedOut()
{
    InferenceError error = startFailed();
    error.m_timedOut = true;
    return error;
}

InferenceError InferenceError::invalidServerResponse()
{
    return {Case::InvalidServerResponse, QStringLiteral("The local model returned an invalid response")};
}

InferenceError InferenceError::visionUnavailable()
{
    return {Case::VisionUnavailable, QStringLiteral("The local model could not load its vision support")};
}
