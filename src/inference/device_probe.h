#pragma once

#include "inference/compute_device.h"

#include <QCoro/QCoroTask>

#include <chrono>

/// Asks the llama-server at `program` which devices it can run on (`--list-devices`), with a
/// time limit: a GPU driver can hang while it starts. Never throws; a program that is missing,
/// fails, hangs or answers something else gives an empty probe, and replies run on the CPU.
QCoro::Task<DeviceProbe> probeComputeDevices(QString program, std::chrono::milliseconds timeout);
