#include "scripts/script_resources.h"

#include <QFile>

namespace ScriptResources {

namespace {

QString resourceText(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll());
}

} // namespace

QString templateSource(const QString &title)
{
    static const QString text = resourceText(QStringLiteral(":/scripts/template.corvane"));
    static const QString placeholder = QStringLiteral("\"TITLE\"");
    QString source = text;
    const qsizetype at = source.indexOf(placeholder);
    if (at >= 0)
        source.replace(at + 1, placeholder.size() - 2, title);
    return source;
}

QString exampleSource()
{
    return resourceText(QLatin1String(examplePath));
}

} // namespace ScriptResources
