#pragma once

// Pieces the benchmarks share: the middle of a set of timings, the model file they run on,
// and a long chat to work on.

#include "models/model_spec.h"
#include "storage/database.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QList>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <cstdio>
#include <optional>

/// The middle value (the mean of the two middle ones for an even count).
inline double median(QList<double> values)
{
    std::ranges::sort(values);
    const qsizetype n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

/// The resident memory of process `pid` (this one when 0) in MB, from /proc.
inline double residentMB(qint64 pid = 0)
{
    QFile status(pid ? QStringLiteral("/proc/%1/status").arg(pid) : QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toDouble() / 1024.0;
    return -1;
}

/// Has the stand-in llama-server reply in `pieces` words, one every 10 ms (a paragraph break
/// every 40), for benchmarks of the window while a reply streams in.
inline void useStandInReply(int pieces)
{
    QStringList words;
    for (int i = 0; i < pieces; ++i)
        words << (i % 40 == 39 ? QStringLiteral("word.\n\n") : QStringLiteral("word "));
    qputenv("CORVANE_FAKE_REPLY", words.join(QLatin1Char('|')).toUtf8());
    qputenv("CORVANE_FAKE_PIECE_DELAY_MS", "10");
}

/// The model file named on the command line, else the test model that `make test` generates;
/// absent, with a message naming `program`, when the file is missing.
inline std::optional<QString> benchmarkModel(int argc, char *argv[], const char *program)
{
    const QString model = argc > 1 ? QString::fromLocal8Bit(argv[1])
                                   : QStringLiteral(CORVANE_TEST_MODELS_DIR "/chat-qwen35.gguf");
    if (QFileInfo::exists(model))
        return model;
    std::fprintf(stderr, "%s: %s is missing; `make test` generates it\n", program, qPrintable(model));
    return std::nullopt;
}

/// The database file named on the command line, else the 1,000,000-message file that
/// bench_database writes; absent, with a message naming `program`, when it is missing.
inline std::optional<QString> benchmarkDatabase(int argc, char *argv[], const char *program)
{
    const QString database = argc > 1 ? QString::fromLocal8Bit(argv[1])
                                      : QCoreApplication::applicationDirPath()
                                            + QStringLiteral("/bench-data/messages-1m-fk-indexes.sqlite");
    if (QFileInfo::exists(database))
        return database;
    std::fprintf(stderr, "%s: %s is missing; run bench_database first\n", program, qPrintable(database));
    return std::nullopt;
}

/// Adds `count` messages to a chat in one transaction, user and assistant taking turns;
/// `body` gets the message's number for "%1".
inline void addConversation(Database &db, qint64 chatID, int count, const QString &body)
{
    db.execute(QStringLiteral("BEGIN"));
    Message message;
    message.chatID = chatID;
    message.createdAt = QStringLiteral("2026-11-20T10:00:00Z");
    for (int i = 0; i < count; ++i) {
        message.role = i % 2 ? QStringLiteral("assistant") : QStringLiteral("user");
        message.body = body.arg(i);
        db.addMessage(message);
    }
    db.execute(QStringLiteral("COMMIT"));
}

/// Makes `dataDir` the data folder with a chat model that counts as installed, for programs
/// that sit beside the stand-in llama-server, which ignores the model file. Answers the
/// catalogue to build the application model with; empty when the file could not be written.
inline QList<ModelSpec> standInChatModel(const QString &dataDir)
{
    qputenv("CORVANE_DATA_DIR", dataDir.toUtf8());
    QDir().mkpath(dataDir + QStringLiteral("/Models"));
    QFile model(dataDir + QStringLiteral("/Models/chat.gguf"));
    if (!model.open(QIODevice::WriteOnly) || model.write("model") != 5)
        return {};
    ModelSpec spec;
    spec.id = QStringLiteral("chat-test");
    spec.name = QStringLiteral("Test chat model");
    spec.fileName = QStringLiteral("chat.gguf");
    spec.byteCount = 5;
    spec.role = ModelSpec::Role::Chat;
    return {spec};
}
