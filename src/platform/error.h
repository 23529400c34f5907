#pragma once

#include <QString>

#include <exception>

/// Base of every error the application reports to the user. Each service derives its own
/// error type whose cases carry a fixed, plain-words description; the application model
/// catches them in one place and shows `description()` in the status banner.
class CorvaneError : public std::exception
{
public:
    explicit CorvaneError(QString description)
        : m_description(std::move(description))
        , m_utf8(m_description.toUtf8())
    {
    }

    /// The text shown to the user, exactly as it should appear.
    const QString &description() const noexcept { return m_description; }
    const char *what() const noexcept override { return m_utf8.constData(); }

private:
    QString m_description;
    QByteArray m_utf8;
};

/// A failure the operating system or a library described in its own words: a program that
/// could not be started, a connection that was refused. Its description is that text.
class SystemError : public CorvaneError
{
public:
    using CorvaneError::CorvaneError;
};
