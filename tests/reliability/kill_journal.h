#pragma once

// The kill test's journal: what the workload has seen the application store, one fact a line,
// kept outside the data folder. Each line is on disk (fsync) before the workload goes on, so
// that a kill never loses a fact whose work had returned; a line a kill cut short is dropped
// by the next writer and never read.
//
// Lines, as the workload writes them:
//   adding chat | adding folder          before the add;
//   chat ID | folder ID                  after it (-1 when nothing was added);
//   sent CHAT TEXT                       the user's message TEXT is stored in CHAT;
//   bulk CHAT COUNT PREFIX               bulkBody(PREFIX, 0..COUNT-1) are stored in CHAT;
//   replacing CHAT TEXT                  before regenerating: the reply TEXT may go;
//   deleting chat ID                     before a deletion; the chat's texts are in doubt;
//   deleting folder ID nodes A,B chats C,D   the same for a folder and what is below it;
//   deleted                              the deletion just before is queued;
//   erasing | erased                     before erasing everything, and after it succeeded;
//   run N                                a workload process started.

#include <QFile>
#include <QString>
#include <QStringList>

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>

namespace KillJournal {

/// The password the workload locks folders with, which the checks open them with again.
inline const QString vaultPassword = QStringLiteral("kill anywhere password");

/// The text of message `index` of a bulk insert, rebuilt by the checker from the journal.
inline QString bulkBody(const QString &prefix, int index)
{
    static const QStringList words = {"river", "stone", "lantern", "orchard", "copper", "meadow",
                                      "harbour", "thistle", "ember", "quarry", "willow", "falcon"};
    QString body = prefix + QLatin1Char('-') + QString::number(index);
    for (int i = 0; i < 6 + index % 9; ++i)
        body += QLatin1Char(' ') + words[(index * 7 + i * 5) % words.size()];
    return body;
}

/// Appends lines to the journal file, each made durable before `write` returns.
class Writer
{
public:
    explicit Writer(const QString &path)
    {
        m_fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (m_fd < 0)
            throw std::runtime_error("cannot open the journal");
        // A line the last kill cut short goes, so that the next one starts on a line of its own.
        const off_t size = ::lseek(m_fd, 0, SEEK_END);
        off_t end = size;
        char c = '\n';
        while (end > 0 && ::pread(m_fd, &c, 1, end - 1) == 1 && c != '\n')
            --end;
        if (end != size && ::ftruncate(m_fd, end) != 0)
            throw std::runtime_error("cannot cut the journal's last line");
    }
    ~Writer() { ::close(m_fd); }
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;

    void write(const QString &line)
    {
        const QByteArray bytes = line.toUtf8() + '\n';
        qsizetype done = 0;
        while (done < bytes.size()) {
            const ssize_t n = ::write(m_fd, bytes.constData() + done, size_t(bytes.size() - done));
            if (n <= 0)
                throw std::runtime_error("cannot write the journal");
            done += n;
        }
        if (::fsync(m_fd) != 0)
            throw std::runtime_error("cannot sync the journal");
    }

private:
    int m_fd = -1;
};

/// The complete lines of the journal at `path` from byte `offset` on, in order; `offset` moves
/// past them.
inline QStringList read(const QString &path, qint64 &offset)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(offset))
        return {};
    const QByteArray all = file.readAll();
    const QByteArray complete = all.left(all.lastIndexOf('\n') + 1);
    offset += complete.size();
    QStringList lines = QString::fromUtf8(complete).split(QLatin1Char('\n'));
    lines.removeLast(); // what follows the last line break: empty, or a line cut short
    return lines;
}

} // namespace KillJournal
