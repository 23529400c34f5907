#pragma once

#include "platform/error.h"

/// Something needed the vault key or the vault record and could not go on. Each case has a
/// fixed description; callers that must react differently tell them apart by `kind()`.
class VaultError : public CorvaneError
{
public:
    enum class Case {
        Locked, ///< a sealed value was read or written while no key is held
        TouchIDFailed, ///< the seal to this computer could not be made or did not open
    };

    /// "Unlock your locked folders first".
    static VaultError locked() { return VaultError(Case::Locked); }
    /// "This computer could not unlock your locked folders".
    static VaultError touchIDFailed() { return VaultError(Case::TouchIDFailed); }

    Case kind() const noexcept { return m_case; }

private:
    explicit VaultError(Case which)
        : CorvaneError(descriptionOf(which))
        , m_case(which)
    {
    }

    static QString descriptionOf(Case which)
    {
        switch (which) {
        case Case::Locked:
            return QStringLiteral("Unlock your locked folders first");
        case Case::TouchIDFailed:
            return QStringLiteral("This computer could not unlock your locked folders");
        }
        return {};
    }

    Case m_case;
};
