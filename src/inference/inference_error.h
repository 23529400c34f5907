#pragma once

#include "platform/error.h"

/// What can go wrong between the application and its local inference server.
class InferenceError : public CorvaneError
{
public:
    enum class Case {
        RequestFailed,
        ContextTooLong,
        MissingRuntime,
        StartFailed,
        InvalidServerResponse,
        VisionUnavailable,
    };

    Case kind() const { return m_case; }
    /// The HTTP status of RequestFailed (0 when the answer was not HTTP).
    int status() const { return m_status; }
    /// A StartFailed whose server was still loading when the wait for it ran out, rather than
    /// one that ended by itself.
    bool timedOut() const { return m_timedOut; }

    static InferenceError requestFailed(int status);
    /// The context size is shown with the user's digit grouping (32,768 in English).
    static InferenceError contextTooLong(qint64 contextTokens);
    static InferenceError missingRuntime();
    static InferenceError startFailed();
    static InferenceError startTimedOut();
    static InferenceError invalidServerResponse();
    static InferenceError visionUnavailable();

private:
    InferenceError(Case kind, QString description, int status = 0)
        : CorvaneError(std::move(description))
        , m_case(kind)
        , m_status(status)
    {
    }

    Case m_case;
    int m_status;
    bool m_timedOut = false;
};
