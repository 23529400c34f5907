#pragma once

// Everything the process logs while a LogCapture lives, every category and level switched on,
// for tests that check what must never be written to a log: passwords, keys. Warnings and worse
// still reach the test's output; debug and info lines are only kept.

#include <QLoggingCategory>
#include <QMutex>
#include <QMutexLocker>
#include <QString>
#include <QStringList>

class LogCapture
{
public:
    LogCapture()
    {
        s_self = this;
        QLoggingCategory::setFilterRules(QStringLiteral("*.debug=true\n*.info=true"));
        m_previous = qInstallMessageHandler(&LogCapture::handle);
    }

    ~LogCapture()
    {
        qInstallMessageHandler(m_previous);
        QLoggingCategory::setFilterRules(QString());
        s_self = nullptr;
    }

    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    /// Notes a line that was shown rather than logged (the status banner's texts).
    void add(const QString &line)
    {
        const QMutexLocker lock(&m_mutex);
        m_lines << line;
    }

    int count() const
    {
        const QMutexLocker lock(&m_mutex);
        return int(m_lines.size());
    }

    /// The lines that hold any of `secrets` (empty ones ignored); none is what a test wants.
    QStringList containing(const QStringList &secrets) const
    {
        const QMutexLocker lock(&m_mutex);
        QStringList found;
        for (const QString &line : m_lines)
            for (const QString &secret : secrets)
                if (!secret.isEmpty() && line.contains(secret, Qt::CaseInsensitive))
                    found << line;
        return found;
    }

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &message)
    {
        LogCapture *self = s_self;
        if (!self)
            return;
        self->add(QString::fromUtf8(context.category ? context.category : "") + QLatin1Char(' ') + message);
        if (type != QtDebugMsg && type != QtInfoMsg && self->m_previous)
            self->m_previous(type, context, message);
    }

    inline static LogCapture *s_self = nullptr;
    QtMessageHandler m_previous = nullptr;
    mutable QMutex m_mutex;
    QStringList m_lines;
};
