#include "scripts/cartridge_library.h"

#include "scripts/cartridge_error.h"
#include "scripts/script_resources.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSaveFile>
#include <QStringDecoder>

#include <algorithm>

namespace {

const QString s_extension = QStringLiteral("corvane");
const QString s_moduleSuffix = QStringLiteral(".corvane.js");

bool isScriptName(const QString &path)
{
    return QFileInfo(path).suffix() == s_extension || path.endsWith(s_moduleSuffix);
}

/// The file name without ".corvane.js" when it ends so, else without its extension.
QString baseName(const QString &path)
{
    const QString file = QFileInfo(path).fileName();
    if (file.endsWith(s_moduleSuffix))
        return file.chopped(s_moduleSuffix.size());
    return QFileInfo(path).completeBaseName();
}

/// The order people expect of names: runs of digits compare as numbers ("Script 2" before
/// "Script 10"), the rest without case. (QCollator's numeric mode needs ICU, which a build
/// may lack.)
int naturalCompare(const QString &a, const QString &b)
{
    qsizetype i = 0;
    qsizetype j = 0;
    while (i < a.size() && j < b.size()) {
        if (a[i].isDigit() && b[j].isDigit()) {
            const qsizetype startA = i;
            const qsizetype startB = j;
            while (i < a.size() && a[i].isDigit())
                ++i;
            while (j < b.size() && b[j].isDigit())
                ++j;
            // Without leading zeros, the longer run is the larger number.
            QStringView numberA = QStringView(a).sliced(startA, i - startA);
            QStringView numberB = QStringView(b).sliced(startB, j - startB);
            while (numberA.size() > 1 && numberA.front() == QLatin1Char('0'))
                numberA = numberA.sliced(1);
            while (numberB.size() > 1 && numberB.front() == QLatin1Char('0'))
                numberB = numberB.sliced(1);
            if (numberA.size() != numberB.size())
                return numberA.size() < numberB.size() ? -1 : 1;
            if (const int order = numberA.compare(numberB); order != 0)
                return order;
            continue;
        }
        const QChar x = a[i].toCaseFolded();
        const QChar y = b[j].toCaseFolded();
        if (x != y)
            return QString::localeAwareCompare(QString(x), QString(y)) < 0 ? -1 : 1;
        ++i;
        ++j;
    }
    return (a.size() - i) < (b.size() - j) ? -1 : (a.size() - i) > (b.size() - j) ? 1 : 0;
}

void writeAtomically(const QString &path, const QString &text)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text.toUtf8()) < 0 || !file.commit())
        throw SystemError(file.errorString());
}

} // namespace

QString CartridgeFile::name() const
{
    return QFileInfo(path).completeBaseName();
}

CartridgeLibrary::CartridgeLibrary(const QString &supportDirectory)
{
    const QDir support(supportDirectory);
    const QString scripts = support.filePath(QStringLiteral("Scripts"));
    const bool existed = QFileInfo(scripts).isDir();
    const QString earlier = support.filePath(QStringLiteral("Cartridges"));
    const bool movedOver = !existed && QFileInfo(earlier).isDir();
    if (movedOver && !QDir().rename(earlier, scripts))
        throw SystemError(QStringLiteral("Could not move “%1” to “%2”.").arg(earlier, scripts));
    if (!QDir().mkpath(scripts))
        throw SystemError(QStringLiteral("Could not create the folder “%1”.").arg(scripts));
    m_directory = scripts;
    if (!existed)
        addExample();
}

QList<CartridgeFile> CartridgeLibrary::files() const
{
    const QDir directory(m_directory);
    if (!directory.exists())
        throw SystemError(QStringLiteral("Could not read the folder “%1”.").arg(m_directory));
    QList<CartridgeFile> result;
    for (const QFileInfo &entry : directory.entryInfoList(QDir::Files | QDir::NoDotAndDotDot)) {
        // Only what the library writes itself: "x.corvane.js" has the suffix "js".
        if (entry.suffix() == s_extension && entry.isFile())
            result.append({entry.absoluteFilePath()});
    }
    std::ranges::stable_sort(result, [](const CartridgeFile &a, const CartridgeFile &b) {
        return naturalCompare(a.name(), b.name()) < 0;
    });
    return result;
}

CartridgeFile CartridgeLibrary::create(const QString &name) const
{
    const QString path = unusedPath(name);
    writeAtomically(path, ScriptResources::templateSource(baseName(path)));
    return {path};
}

CartridgeFile CartridgeLibrary::saveImported(const QString &source, const QString &name, const QString &from) const
{
    const QList<CartridgeFile> listed = files();
    const QString picked = QFileInfo(from).absoluteFilePath();
    for (const CartridgeFile &file : listed) {
        if (QDir::cleanPath(file.path) == QDir::cleanPath(picked))
            return file;
    }
    for (const CartridgeFile &file : listed) {
        try {
            if (read(file.path) == source)
                return file;
        } catch (const CartridgeError &) {
            // Not a script any more: it cannot be the same text.
        }
    }
    const QString path = unusedPath(name);
    writeAtomically(path, source);
    return {path};
}

CartridgeFile CartridgeLibrary::rename(const CartridgeFile &file, const QString &name) const
{
    CartridgeFile renamed = file;
    if (fileBase(name) != file.name()) {
        renamed.path = unusedPath(name);
        if (!QFile::rename(file.path, renamed.path))
            throw SystemError(QStringLiteral("Could not rename “%1”.").arg(file.name()));
    }
    QString source = read(renamed.path);
    // The first `name: "…"` or `name: '…'` gets the new title, in the same quotes.
    static const QRegularExpression literal(QStringLiteral("(\\bname\\s*:\\s*)([\"'])"));
    const QRegularExpressionMatch match = literal.match(source);
    if (match.hasMatch()) {
        const QChar quote = match.captured(2).front();
        const qsizetype start = match.capturedEnd(2);
        qsizetype end = start;
        while (end < source.size() && source[end] != quote && source[end] != QLatin1Char('\n')) {
            if (source[end] == QLatin1Char('\\'))
                ++end;
            ++end;
        }
        if (end < source.size() && source[end] == quote) {
            source.replace(start, end - start, renamed.name());
            writeAtomically(renamed.path, source);
        }
    }
    return renamed;
}

void CartridgeLibrary::remove(const CartridgeFile &file) const
{
    QFile trashed(file.path);
    if (!trashed.moveToTrash())
        throw SystemError(QStringLiteral("Could not move “%1” to the trash: %2").arg(file.name(), trashed.errorString()));
}

void CartridgeLibrary::addExample() const
{
    const QString source = ScriptResources::exampleSource();
    if (source.isEmpty())
        return;
    const QString path = QDir(m_directory).filePath(QStringLiteral("Example Script.corvane"));
    if (!QFileInfo::exists(path))
        writeAtomically(path, source);
}

void CartridgeLibrary::save(const CartridgeFile &file, const QString &source) const
{
    writeAtomically(file.path, source);
}

void CartridgeLibrary::saveCopy(const CartridgeFile &file, const QString &destination)
{
    writeAtomically(destination, read(file.path));
}

QString CartridgeLibrary::read(const QString &path)
{
    const QFileInfo info(path);
    if (!isScriptName(path) || !info.isFile() || info.size() > maxFileBytes)
        throw CartridgeError::invalidFile();
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw CartridgeError::invalidFile();
    const QByteArray bytes = file.read(maxFileBytes + 1);
    if (bytes.size() > maxFileBytes)
        throw CartridgeError::invalidFile();
    // Stateless: a sequence cut off at the end is an error, not something to wait for.
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(bytes);
    if (decoder.hasError())
        throw CartridgeError::invalidFile();
    return text;
}

QString CartridgeLibrary::fileBase(const QString &name)
{
    QString base;
    for (const char32_t c : name.toUcs4()) {
        const bool kept = QChar::isLetterOrNumber(c) || c == U' ' || c == U'-' || c == U'_';
        base += kept ? QString::fromUcs4(&c, 1) : QStringLiteral("-");
    }
    base = base.trimmed();
    return base.isEmpty() ? QStringLiteral("Script") : base.left(70);
}

QString CartridgeLibrary::title(const QString &resultName, const QString &path)
{
    const QString trimmed = resultName.trimmed();
    return trimmed.isEmpty() ? baseName(path) : trimmed;
}

QString CartridgeLibrary::unusedPath(const QString &name) const
{
    const QDir directory(m_directory);
    const QString base = fileBase(name);
    QString candidate = directory.filePath(base + QStringLiteral(".corvane"));
    for (int n = 2; QFileInfo::exists(candidate); ++n)
        candidate = directory.filePath(QStringLiteral("%1 %2.corvane").arg(base).arg(n));
    return candidate;
}
