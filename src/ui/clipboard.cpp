#include "clipboard.h"

#include <QClipboard>
#include <QGuiApplication>

void Clipboard::copy(const QString &text)
{
    QGuiApplication::clipboard()->setText(text);
}
