// What the context a script receives makes of its chat's messages, and when the request
// carries a text. The names the script sees are checked in the runner's tests.

#include "scripts/cartridge_context.h"
#include "scripts/cartridge_engine.h"

#include <QJsonDocument>
#include <QTest>

namespace {

const QDateTime now = QDateTime::fromString(QStringLiteral("2026-11-15T20:21:57Z"), Qt::ISODate);
const QDateTime opened = now.addSecs(-90);

/// Messages from a compact description: role, whether hidden, and the creation time.
struct Entry
{
    const char *role;
    bool hidden;
    const char *createdAt;
};

QList<Message> history(std::initializer_list<Entry> entries)
{
    QList<Message> messages;
    qint64 id = 0;
    for (const Entry &entry : entries) {
        Message message;
        message.id = ++id;
        message.role = QString::fromLatin1(entry.role);
        message.body = QStringLiteral("m%1").arg(id);
        message.hidden = entry.hidden;
        message.createdAt = QString::fromLatin1(entry.createdAt);
        messages.append(message);
    }
    return messages;
}

} // namespace

class TestCartridgeContext : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void turnAndIdleness_data()
    {
        QTest::addColumn<QList<Message>>("messages");
        QTest::addColumn<qint64>("turn");
        QTest::addColumn<double>("idleSeconds");

        QTest::newRow("no messages: from when the chat was opened") << QList<Message>() << qint64(0) << 90.0;
        QTest::newRow("from the last message that is not hidden")
            << history({{"user", false, "2026-11-15T20:20:00Z"},
                        {"assistant", false, "2026-11-15T20:21:00Z"},
                        {"user", true, "2026-11-15T20:21:50Z"}})
            << qint64(1) << 57.0;
        QTest::newRow("only user messages count, hidden ones not")
            << history({{"user", false, "2026-11-15T20:00:00Z"}, {"system", false, "2026-11-15T20:00:00Z"},
                        {"User", false, "2026-11-15T20:00:00Z"}, {"user", true, "2026-11-15T20:00:00Z"},
                        {"user", false, "2026-11-15T20:21:56Z"}})
            << qint64(2) << 1.0;
        QTest::newRow("unreadable time of the last visible message")
            << history({{"user", false, "2026-11-15T20:00:00Z"}, {"user", false, "yesterday"}})
            << qint64(2) << 90.0;
    }

    void turnAndIdleness()
    {
        QFETCH(QList<Message>, messages);
        QFETCH(qint64, turn);
        QFETCH(double, idleSeconds);
        const auto context = CartridgeContext::forChat(Chat(), QStringLiteral("Ada"), messages, opened, now);
        QCOMPARE(context.turn, turn);
        QCOMPARE(context.idleSeconds, idleSeconds);
    }

    void requestText_data()
    {
        QTest::addColumn<CartridgeHook>("hook");
        QTest::addColumn<std::optional<QString>>("text");
        QTest::addColumn<QJsonValue>("sent");
        const QJsonValue absent(QJsonValue::Undefined);
        QTest::newRow("reply with text") << CartridgeHook::Reply << std::optional<QString>("Hi") << QJsonValue("Hi");
        QTest::newRow("reply with empty text") << CartridgeHook::Reply << std::optional<QString>("") << QJsonValue("");
        QTest::newRow("turn") << CartridgeHook::Turn << std::optional<QString>("Hi") << absent;
    }

    void requestText()
    {
        QFETCH(CartridgeHook, hook);
        QFETCH(std::optional<QString>, text);
        QFETCH(QJsonValue, sent);
        const auto context = CartridgeContext::forChat(Chat(), {}, {}, opened, now);
        const QJsonObject request = QJsonDocument::fromJson(
            CartridgeEngine::encodeRequest(QStringLiteral("src"), context, hook, QStringLiteral("{}"), text))
                                        .object();
        QCOMPARE(request.value("text"), sent);
        QCOMPARE(request.contains("text"), !sent.isUndefined());
    }
};

QTEST_GUILESS_MAIN(TestCartridgeContext)
#include "tst_cartridge_context.moc"
