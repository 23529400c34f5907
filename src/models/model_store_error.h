#pragma once

#include "platform/error.h"

/// Why a model could not be installed. File-system and network failures are not cases here:
/// they reach the user in the system's own words (SystemError).
class ModelStoreError : public CorvaneError
{
public:
    enum class Case {
        InvalidURL, ///< "Invalid model URL"
        DownloadFailed, ///< "Model download failed"
        InvalidSize, ///< "Downloaded model has the wrong size"
        InvalidHash, ///< "Downloaded model failed its SHA-256 check"
        UnknownFile, ///< "This file is not one of Corvane's models"
    };

    static ModelStoreError invalidURL() { return ModelStoreError(Case::InvalidURL); }
    static ModelStoreError downloadFailed() { return ModelStoreError(Case::DownloadFailed); }
    static ModelStoreError invalidSize() { return ModelStoreError(Case::InvalidSize); }
    static ModelStoreError invalidHash() { return ModelStoreError(Case::InvalidHash); }
    static ModelStoreError unknownFile() { return ModelStoreError(Case::UnknownFile); }

    Case kind() const noexcept { return m_case; }

private:
    explicit ModelStoreError(Case which)
        : CorvaneError(descriptionOf(which))
        , m_case(which)
    {
    }

    static QString descriptionOf(Case which)
    {
        switch (which) {
        case Case::InvalidURL:
            return QStringLiteral("Invalid model URL");
        case Case::DownloadFailed:
            return QStringLiteral("Model download failed");
        case Case::InvalidSize:
            return QStringLiteral("Downloaded model has the wrong size");
        case Case::InvalidHash:
            return QStringLiteral("Downloaded model failed its SHA-256 check");
        case Case::UnknownFile:
            return QStringLiteral("This file is not one of Corvane's models");
        }
        return {};
    }

    Case m_case;
};
