#include "scripts/cartridge_error.h"

CartridgeError CartridgeError::rejected(const QString &message)
{
    return {Case::Rejected, QStringLiteral("Script: ") + message, message};
}

CartridgeError CartridgeError::missingRunner()
{
    return {Case::MissingRunner, QStringLiteral("The script runner is missing from this app build.")};
}

CartridgeError CartridgeError::invalidFile()
{
    return {Case::InvalidFile,
            QStringLiteral("The script must be a UTF-8 .corvane or .corvane.js file under 128 KB.")};
}

CartridgeError CartridgeError::timedOut()
{
    return {Case::TimedOut, QStringLiteral("The script exceeded its execution time limit.")};
}

CartridgeError CartridgeError::invalidResponse()
{
    return {Case::InvalidResponse, QStringLiteral("The script runner returned an invalid result.")};
}
