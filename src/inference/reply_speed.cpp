#include "inference/reply_speed.h"

#include <cmath>

namespace {

const QString s_firstToken = QStringLiteral("first_token_ms");
const QString s_tokens = QStringLiteral("tokens");
const QString s_rate = QStringLiteral("tokens_per_second");

} // namespace

QJsonObject ReplySpeed::toJson() const
{
    QJsonObject object;
    if (firstTokenMs >= 0)
        object.insert(s_firstToken, firstTokenMs);
    if (tokensPerSecond > 0) {
        object.insert(s_tokens, tokens);
        // Two decimals say all there is to say and keep the stored JSON short.
        object.insert(s_rate, std::round(tokensPerSecond * 100) / 100);
    }
    return object;
}

std::optional<ReplySpeed> ReplySpeed::fromJson(const QJsonObject &object)
{
    ReplySpeed speed;
    speed.firstTokenMs = object.value(s_firstToken).toInteger(-1);
    speed.tokens = object.value(s_tokens).toInteger(0);
    speed.tokensPerSecond = object.value(s_rate).toDouble(0);
    if (speed.firstTokenMs < 0 && !(speed.tokensPerSecond > 0))
        return std::nullopt;
    return speed;
}

QString ReplySpeed::text() const
{
    QStringList parts;
    if (firstTokenMs >= 0)
        parts << QStringLiteral("%1 s to first token").arg(double(firstTokenMs) / 1000, 0, 'f', firstTokenMs < 10000 ? 2 : 1);
    if (tokensPerSecond > 0)
        parts << QStringLiteral("%1 tokens/s").arg(tokensPerSecond, 0, 'f', 1);
    return parts.join(QStringLiteral(" · "));
}
