#pragma once

#include "inference/compute_device.h"
#include "models/model_spec.h"
#include "platform/cancellation.h"

#include <QObject>
#include <QSet>
#include <QString>
#include <QVariantList>

#include <QCoro/QCoroTask>

#include <chrono>
#include <optional>

class Database;
class InferenceEngine;
class StatusBanner;

/// What replies run on: the devices llama-server finds (asked once per start, in the
/// background), the user's choice among them, and the fall back to the CPU for a model that
/// the GPU could not load, kept for that model until the user chooses again.
class ComputeChoice : public QObject
{
    Q_OBJECT
    /// Automatic, each device found, CPU only; each as {id, label}.
    Q_PROPERTY(QVariantList choices READ choices NOTIFY changed)
    Q_PROPERTY(QString preference READ preference NOTIFY changed)
    /// What the latest reply ran on, or before any what the next one will: "NVIDIA H100 80GB
    /// HBM3 (CUDA)", "CPU, AVX-512". Empty while the devices are being asked for.
    Q_PROPERTY(QString runsOn READ runsOn NOTIFY changed)

public:
    ComputeChoice(InferenceEngine &inference, Database &database, StatusBanner &status, QObject *parent = nullptr);

    /// Asks llama-server for its devices; loads wait for the answer.
    QCoro::Task<> probe(std::chrono::milliseconds timeout = std::chrono::seconds(20));

    QVariantList choices() const;
    const QString &preference() const { return m_preference; }
    QString runsOn() const;
    /// Stores the choice ("auto", "cpu" or a device's name) and forgets every fall back: the
    /// user asked for this device now. The running server moves at the next reply.
    Q_INVOKABLE void setPreference(const QString &id);

    /// Starts the server for `model` on the chosen device. When that fails on a GPU, starts
    /// it on the CPU, remembers that for the model unless the server was only too slow to get
    /// ready, and keeps a notice for the status line.
    /// Answers the label of what it runs on; throws what InferenceEngine::load throws.
    QCoro::Task<QString> load(ModelSpec model, QString modelPath, std::optional<QString> projectorPath,
                              qint64 contextTokens, CancellationToken cancel);
    /// The notice of the latest fall back, once.
    std::optional<QString> takeNotice() { return std::exchange(m_notice, std::nullopt); }

    /// Back to automatic with nothing remembered after erasing all data.
    void resetAfterErase();

Q_SIGNALS:
    void changed();
    void probed();

private:
    QString label(const std::optional<ComputeDevice> &device) const;
    void storeFallbacks();

    InferenceEngine &m_inference;
    Database &m_database;
    StatusBanner &m_status;
    std::optional<DeviceProbe> m_probe;
    QString m_preference;
    /// Models that run on the CPU because the GPU could not load them.
    QSet<QString> m_cpuModels;
    std::optional<QString> m_lastUsed;
    std::optional<QString> m_notice;
};
