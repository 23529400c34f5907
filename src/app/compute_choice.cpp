#include "app/compute_choice.h"

#include "app/status_banner.h"
#include "inference/device_probe.h"
#include "inference/inference_engine.h"
#include "inference/inference_error.h"
#include "platform/auxiliary_executable.h"
#include "storage/database.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QPointer>

#include <QCoro/QCoroSignal>

Q_LOGGING_CATEGORY(lcCompute, "corvane.app.compute")

namespace {

const QString s_preferenceKey = QStringLiteral("compute_device");
const QString s_cpuModelsKey = QStringLiteral("cpu_fallback_models");
const QString s_noDevice = QStringLiteral("none");

} // namespace

ComputeChoice::ComputeChoice(InferenceEngine &inference, Database &database, StatusBanner &status, QObject *parent)
    : QObject(parent)
    , m_inference(inference)
    , m_database(database)
    , m_status(status)
    , m_preference(DevicePreference::automatic)
{
    m_status.attempt([&] {
        m_preference = m_database.setting(s_preferenceKey).value_or(DevicePreference::automatic);
        const QByteArray stored = m_database.setting(s_cpuModelsKey).value_or(QString()).toUtf8();
        for (const QJsonValue &id : QJsonDocument::fromJson(stored).array())
            m_cpuModels.insert(id.toString());
    });
}

QCoro::Task<> ComputeChoice::probe(std::chrono::milliseconds timeout)
{
    const QPointer<ComputeChoice> alive(this);
    DeviceProbe found = co_await probeComputeDevices(AuxiliaryExecutable::find(QStringLiteral("llama-server")), timeout);
    if (!alive)
        co_return;
    qCInfo(lcCompute) << "devices:" << found.devices.size() << "CPU variant:" << found.cpuVariant;
    m_probe = std::move(found);
    Q_EMIT changed();
    Q_EMIT probed();
}

QString ComputeChoice::label(const std::optional<ComputeDevice> &device) const
{
    return device ? device->label() : cpuLabel(m_probe ? m_probe->cpuVariant : QString());
}

QVariantList ComputeChoice::choices() const
{
    QVariantList list{QVariantMap{{QStringLiteral("id"), DevicePreference::automatic},
                                  {QStringLiteral("label"), QStringLiteral("Automatic")}}};
    if (m_probe) {
        for (const ComputeDevice &device : m_probe->devices)
            list.append(QVariantMap{{QStringLiteral("id"), device.name}, {QStringLiteral("label"), device.label()}});
    }
    // A device chosen earlier that is not here now stays listed, so the choice shows.
    const bool listed = std::ranges::any_of(list, [&](const QVariant &c) {
        return c.toMap().value(QStringLiteral("id")).toString() == m_preference;
    });
    if (!listed && m_preference != DevicePreference::cpuOnly)
        list.append(QVariantMap{{QStringLiteral("id"), m_preference},
                                {QStringLiteral("label"), QStringLiteral("%1 (not found)").arg(m_preference)}});
    list.append(QVariantMap{{QStringLiteral("id"), DevicePreference::cpuOnly},
                            {QStringLiteral("label"), QStringLiteral("CPU only")}});
    return list;
}

QString ComputeChoice::runsOn() const
{
    if (m_lastUsed)
        return *m_lastUsed;
    if (!m_probe)
        return QString();
    return label(chooseDevice(m_probe->devices, m_preference));
}

void ComputeChoice::setPreference(const QString &id)
{
    m_preference = id;
    m_cpuModels.clear();
    m_lastUsed.reset();
    m_status.attempt([&] {
        m_database.setSetting(s_preferenceKey, id);
        m_database.setSetting(s_cpuModelsKey, QStringLiteral("[]"));
    });
    Q_EMIT changed();
}

void ComputeChoice::storeFallbacks()
{
    QJsonArray ids;
    for (const QString &id : m_cpuModels)
        ids.append(id);
    m_status.attempt([&] {
        m_database.setSetting(s_cpuModelsKey, QString::fromUtf8(QJsonDocument(ids).toJson(QJsonDocument::Compact)));
    });
}

QCoro::Task<QString> ComputeChoice::load(ModelSpec model, QString modelPath, std::optional<QString> projectorPath,
                                         qint64 contextTokens, CancellationToken cancel)
{
    const QPointer<ComputeChoice> alive(this);
    if (!m_probe)
        co_await qCoro(this, &ComputeChoice::probed);
    if (!alive)
        throw CancelledError();
    cancel.throwIfCancelled();

    const std::optional<ComputeDevice> device =
        m_cpuModels.contains(model.id) ? std::nullopt : chooseDevice(m_probe->devices, m_preference);
    m_inference.setDevice(device ? device->name : s_noDevice);
    bool fellBack = false;
    bool timedOut = false;
    try {
        co_await m_inference.load(modelPath, projectorPath, contextTokens, cancel);
    } catch (const InferenceError &error) {
        if (!device || error.kind() != InferenceError::Case::StartFailed || !alive)
            throw;
        fellBack = true;
        timedOut = error.timedOut();
    }
    if (fellBack) {
        qCWarning(lcCompute) << model.id << "did not start on" << device->name << "; trying the CPU";
        m_status.show(QStringLiteral("Starting %1 on the CPU…").arg(model.name));
        m_inference.setDevice(s_noDevice);
        co_await m_inference.load(modelPath, projectorPath, contextTokens, cancel);
        if (!alive)
            throw CancelledError();
        // Only now is the GPU known to be what failed: a model that fails on the CPU too
        // (a damaged file) is not kept away from the GPU. Nor is one that was still loading
        // on the GPU when the wait ran out: a cold disk is slow on the first start alone.
        if (timedOut) {
            m_notice = QStringLiteral("%1 took too long to start on %2, so it runs on the CPU this time")
                           .arg(model.name, device->description);
        } else {
            m_cpuModels.insert(model.id);
            storeFallbacks();
            m_notice = QStringLiteral("%1 could not run on %2, so it runs on the CPU").arg(model.name, device->description);
        }
    }
    const QString used = label(fellBack ? std::nullopt : device);
    if (m_lastUsed != used) {
        m_lastUsed = used;
        Q_EMIT changed();
    }
    co_return used;
}

void ComputeChoice::resetAfterErase()
{
    m_preference = DevicePreference::automatic;
    m_cpuModels.clear();
    m_lastUsed.reset();
    Q_EMIT changed();
}
