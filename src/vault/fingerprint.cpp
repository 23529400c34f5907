#include "vault/fingerprint.h"

#include <QCryptographicHash>

QString fingerprint(const QString &text)
{
    return QString::fromLatin1(
        QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha256).toHex());
}
