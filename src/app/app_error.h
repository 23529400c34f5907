#pragma once

#include "platform/error.h"

/// What the application model itself refuses to do, in the words the status banner shows.
class AppError : public CorvaneError
{
public:
    using CorvaneError::CorvaneError;

    static AppError modelMissing() { return AppError(QStringLiteral("Install a chat model in Settings first")); }
    static AppError whisperMissing()
    {
        return AppError(QStringLiteral("Install a dictation model in Settings first"));
    }
    static AppError visionMissing(const QString &name)
    {
        return AppError(QStringLiteral("Install image support for ") + name + QStringLiteral(" to send images"));
    }
};
