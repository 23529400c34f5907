#include "scripts/cartridge_answer.h"

#include "scripts/cartridge_error.h"

#include <QJsonDocument>

namespace CartridgeEngine {

CartridgeResult readAnswer(const QByteArray &answer, CartridgeHook hook)
{
    if (answer.size() > maxAnswerBytes)
        throw CartridgeError::invalidResponse();
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(answer, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        throw CartridgeAnswerError(QStringLiteral("The script's answer could not be read: %1 at byte %2.")
                                       .arg(parseError.errorString())
                                       .arg(parseError.offset));
    if (!document.isObject())
        throw CartridgeAnswerError(QStringLiteral("The script's answer could not be read: it is not a JSON object."));
    const QJsonObject object = document.object();
    const QJsonValue error = object.value(QLatin1String("error"));
    if (error.isString())
        throw CartridgeError::rejected(error.toString());
    CartridgeResult result = CartridgeResult::fromJson(object);
    result.check(hook);
    return result;
}

} // namespace CartridgeEngine
