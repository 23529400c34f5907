#pragma once

#include <QObject>
#include <QString>

#include <exception>

class CorvaneError;

/// The one-line status banner: the outcome of the last operation, or what is under way.
/// Operations never hand errors to the window; they end here, with `isError` set for errors
/// and clear for progress and success texts.
class StatusBanner : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString text READ text NOTIFY changed)
    Q_PROPERTY(bool isError READ isError NOTIFY changed)

public:
    using QObject::QObject;

    const QString &text() const { return m_text; }
    bool isError() const { return m_isError; }

    /// A progress or success text.
    void show(const QString &text) { set(text, false); }
    /// An error's description. A cancelled operation is what the user asked for, so it reads
    /// "Stopped" and is not shown as an error.
    void showError(const std::exception &error);

    /// Runs `work`; an exception it throws goes to the banner. Answers whether it succeeded.
    template <typename Work>
    bool attempt(Work &&work)
    {
        try {
            work();
            return true;
        } catch (const std::exception &error) {
            showError(error);
            return false;
        }
    }

Q_SIGNALS:
    void changed();

private:
    void set(const QString &text, bool isError);

    QString m_text;
    bool m_isError = false;
};
