#pragma once

#include "platform/error.h"

/// What can go wrong with a script, in the words the status line shows.
class CartridgeError : public CorvaneError
{
public:
    enum class Case {
        Rejected, ///< "Script: " and the message
        MissingRunner, ///< "The script runner is missing from this app build."
        InvalidFile, ///< "The script must be a UTF-8 .corvane or .corvane.js file under 128 KB."
        TimedOut, ///< "The script exceeded its execution time limit."
        InvalidResponse, ///< "The script runner returned an invalid result."
    };

    /// The script, or a check of its result, refused: the description is "Script: " + message.
    static CartridgeError rejected(const QString &message);
    static CartridgeError missingRunner();
    static CartridgeError invalidFile();
    /// Also every other death of the runner by a signal, the memory limit included.
    static CartridgeError timedOut();
    static CartridgeError invalidResponse();

    Case kind() const noexcept { return m_case; }
    /// For Rejected: the message without the "Script: " prefix; empty otherwise.
    const QString &message() const noexcept { return m_message; }

private:
    CartridgeError(Case kind, QString description, QString message = {})
        : CorvaneError(std::move(description))
        , m_case(kind)
        , m_message(std::move(message))
    {
    }

    Case m_case;
    QString m_message;
};

/// The runner's answer is not JSON, or not of the form a result must have. The description
/// names what is wrong, for the script's author.
class CartridgeAnswerError : public CorvaneError
{
public:
    using CorvaneError::CorvaneError;
};
