#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

/// How fast a reply came: the wait for its first piece as the user saw it, and the number of
/// generated tokens and their rate as the server measured them. Kept in the reply's metadata
/// under "speed".
struct ReplySpeed
{
    /// From sending the request to the first piece of text; -1 when none came.
    qint64 firstTokenMs = -1;
    /// The server's count and rate; both 0 when it did not say.
    qint64 tokens = 0;
    double tokensPerSecond = 0;

    QJsonObject toJson() const;
    /// Nothing when `object` holds no usable speed.
    static std::optional<ReplySpeed> fromJson(const QJsonObject &object);
    /// For the line under a reply: "0.42 s to first token · 31.2 tokens/s", either part left
    /// out when unknown.
    QString text() const;

    bool operator==(const ReplySpeed &) const = default;
};
