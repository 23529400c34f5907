#include "app/status_banner.h"

#include "platform/cancellation.h"

void StatusBanner::showError(const std::exception &error)
{
    if (const auto *cancelled = dynamic_cast<const CancelledError *>(&error))
        set(cancelled->description(), false);
    else if (const auto *known = dynamic_cast<const CorvaneError *>(&error))
        set(known->description(), true);
    else
        set(QString::fromUtf8(error.what()), true);
}

void StatusBanner::set(const QString &text, bool isError)
{
    if (m_text == text && m_isError == isError)
        return;
    m_text = text;
    m_isError = isError;
    Q_EMIT changed();
}
