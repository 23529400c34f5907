// The context a script receives about its chat, and the request it travels in.

#include "scripts/cartridge_context.h"
#include "scripts/cartridge_engine.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

class TestCartridgeContext : public QObject
{
    Q_OBJECT

private slots:
    void turnAndIdleness_data();
    void turnAndIdleness();
    void messageText_data();
    void messageText();
    void jsonKeys();
    void requestText_data();
    void requestText();
};

namespace {

const QDateTime now = QDateTime::fromString(QStringLiteral("2026-11-15T20:21:57Z"), Qt::ISODate);
const QDateTime opened = now.addSecs(-90);

/// Messages from a compact description: role, 'h' when hidden, and the creation time.
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

void TestCartridgeContext::turnAndIdleness_data()
{
    QTest::addColumn<QList<Message>>("messages");
    QTest::addColumn<qint64>("turn");
    QTest::addColumn<double>("idleSeconds");

    QTest::newRow("no messages: from when the chat was opened") << QList<Message>() << qint64(0) << 90.0;
    QTest::newRow("only hidden messages") << history({{"user", true, "2026-11-15T20:00:00Z"},
                                                      {"assistant", true, "2026-11-15T20:00:01Z"}})
                                          << qint64(0) << 90.0;
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

void TestCartridgeContext::turnAndIdleness()
{
    QFETCH(QList<Message>, messages);
    QFETCH(qint64, turn);
    QFETCH(double, idleSeconds);
    const auto context = CartridgeContext::forChat(Chat(), QStringLiteral("Ada"), messages, opened, now);
    QCOMPARE(context.turn, turn);
    QCOMPARE(context.idleSeconds, idleSeconds);
    QCOMPARE(context.messages.size(), messages.size());
    QCOMPARE(context.now, QStringLiteral("2026-11-15T20:21:57Z"));
    QCOMPARE(context.trigger, QStringLiteral("user"));
    QCOMPARE(context.partial, false);
}

void TestCartridgeContext::messageText_data()
{
    QTest::addColumn<QString>("body");
    QTest::addColumn<QString>("image");
    QTest::addColumn<QString>("description");
    QTest::addColumn<QString>("text");
    QTest::newRow("plain") << "Hello" << QString() << QString() << "Hello";
    QTest::newRow("image, no description, no body") << QString() << "a.jpg" << QString() << "[Image]";
    QTest::newRow("image and body") << "Look" << "a.jpg" << QString() << "[Image]\n\nLook";
    QTest::newRow("described image and body") << "Look" << "a.jpg" << "a cat" << "[Image: a cat]\n\nLook";
    QTest::newRow("described image alone") << QString() << "a.jpg" << "a cat" << "[Image: a cat]";
}

void TestCartridgeContext::messageText()
{
    QFETCH(QString, body);
    QFETCH(QString, image);
    QFETCH(QString, description);
    QFETCH(QString, text);
    Message message;
    message.role = QStringLiteral("user");
    message.body = body;
    message.image = image;
    message.imageDescription = description;
    const auto context = CartridgeContext::forChat(Chat(), {}, {message}, opened, now);
    QCOMPARE(context.messages.value(0).text, text);
}

void TestCartridgeContext::jsonKeys()
{
    Chat chat;
    chat.id = 42;
    chat.title = QStringLiteral("Plans");
    Message message;
    message.role = QStringLiteral("assistant");
    message.body = QStringLiteral("Hi");
    message.display = QStringLiteral("Hi!");
    message.hidden = true;
    message.data = QStringLiteral("{\"n\":1}");
    message.createdAt = QStringLiteral("2026-11-15T20:20:44Z");
    auto context = CartridgeContext::forChat(chat, QStringLiteral("Sage"), {message}, opened, now);
    context.trigger = QStringLiteral("tick");
    context.partial = true;

    const QJsonObject json = context.toJson();
    QCOMPARE(json.keys(), QStringList({"agent", "chat", "idle_seconds", "messages", "now", "partial",
                                       "trigger", "turn"}));
    QCOMPARE(json.value("agent").toObject(), QJsonObject({{"name", "Sage"}}));
    QCOMPARE(json.value("chat").toObject(), QJsonObject({{"title", "Plans"}, {"id", 42}}));
    QCOMPARE(json.value("messages").toArray().at(0).toObject(),
             QJsonObject({{"role", "assistant"}, {"text", "Hi"}, {"display", "Hi!"}, {"hidden", true},
                          {"data", "{\"n\":1}"}, {"createdAt", "2026-11-15T20:20:44Z"}}));
    QCOMPARE(json.value("trigger").toString(), QStringLiteral("tick"));
    QCOMPARE(json.value("partial").toBool(), true);
    QCOMPARE(json.value("idle_seconds").toDouble(), 90.0);
    QCOMPARE(json.value("turn").toInteger(), 0);
}

void TestCartridgeContext::requestText_data()
{
    QTest::addColumn<CartridgeHook>("hook");
    QTest::addColumn<std::optional<QString>>("text");
    QTest::addColumn<QJsonValue>("sent");
    const QJsonValue absent(QJsonValue::Undefined);
    QTest::newRow("reply with text") << CartridgeHook::Reply << std::optional<QString>("Hi") << QJsonValue("Hi");
    QTest::newRow("reply with empty text") << CartridgeHook::Reply << std::optional<QString>("") << QJsonValue("");
    QTest::newRow("reply without text") << CartridgeHook::Reply << std::optional<QString>() << absent;
    QTest::newRow("turn") << CartridgeHook::Turn << std::optional<QString>("Hi") << absent;
    QTest::newRow("tick") << CartridgeHook::Tick << std::optional<QString>("Hi") << absent;
    QTest::newRow("info") << CartridgeHook::Info << std::optional<QString>() << absent;
}

void TestCartridgeContext::requestText()
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
    QCOMPARE(request.value("hook").toString(), cartridgeHookName(hook));
    QCOMPARE(request.value("state").toString(), QStringLiteral("{}"));
    QCOMPARE(request.value("source").toString(), QStringLiteral("src"));
    QCOMPARE(request.value("context").toObject(), context.toJson());
}

QTEST_GUILESS_MAIN(TestCartridgeContext)
#include "tst_cartridge_context.moc"
