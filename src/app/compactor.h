#pragma once

#include "platform/cancellation.h"

#include <QObject>
#include <QString>

#include <QCoro/QCoroTask>

#include <optional>

class AppSettings;
class Database;
class InferenceEngine;

/// Folds the older part of a long chat into its running summary, in the background after a
/// reply, one chat at a time. Messages are never deleted; those the summary covers simply
/// stop being sent. Failures keep the previous summary and the next reply tries again.
class Compactor : public QObject
{
    Q_OBJECT

public:
    Compactor(Database &database, InferenceEngine &inference, const AppSettings &settings,
              QObject *parent = nullptr);
    ~Compactor() override { cancel(); }

    /// Compacts `chatID` if needed, with the prompt and reply limit of the reply that just
    /// ended; replaces a compaction that is still running.
    void start(qint64 chatID, QString systemPrompt, qint64 responseTokens);
    void cancel();
    bool isRunning() const { return m_cancel.has_value(); }
    /// The chat being compacted, while one is.
    std::optional<qint64> chatID() const { return isRunning() ? std::optional<qint64>(m_chatID) : std::nullopt; }

    /// The work itself: summarises when the chat has grown past three quarters of the budget
    /// that a reply leaves.
    QCoro::Task<> compactIfNeeded(qint64 chatID, QString systemPrompt, qint64 responseTokens,
                                  CancellationToken cancel);

Q_SIGNALS:
    void summaryChanged(qint64 chatID);

private:
    QCoro::Task<> run(qint64 chatID, QString systemPrompt, qint64 responseTokens, CancellationToken cancel,
                      int run);

    Database &m_database;
    InferenceEngine &m_inference;
    const AppSettings &m_settings;
    std::optional<CancellationToken> m_cancel;
    int m_runs = 0; ///< tells the current compaction from one it replaced
    qint64 m_chatID = 0;
};
