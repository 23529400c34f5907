#pragma once

#include <QObject>

class QSocketNotifier;

/// Turns SIGTERM, SIGINT and SIGHUP into an orderly QCoreApplication::quit(), so that a
/// session logout or a Ctrl+C still stops the inference server and locks the vault
/// instead of leaving a child process behind. Only one instance may exist.
class TerminationSignals : public QObject
{
    Q_OBJECT
public:
    explicit TerminationSignals(QObject *parent = nullptr);
    ~TerminationSignals() override;

Q_SIGNALS:
    /// Emitted on the main thread for each signal received, before quit() is requested.
    void received(int signalNumber);

private:
    void handle();

    QSocketNotifier *m_notifier = nullptr;
};
