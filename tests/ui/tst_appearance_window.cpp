// Light and dark. A settings portal of the test's own, on a session bus of the test's own,
// tells the window the desktop's colour scheme and then changes it: the open window repaints
// without a restart. The user's choice in Settings wins over the desktop. Every text colour
// of the theme, and the code colours, keep WCAG AA contrast on every background they are
// drawn on, in both schemes, and links in messages take the theme's accent; pictures of both
// are saved with the other test pictures.
#include "support/database_rows.h"
#include "support/private_bus.h"
#include "support/test_chat_model.h"
#include "window_test_support.h"

#include "code_highlighter.h"

#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QFile>
#include <QGuiApplication>
#include <QPalette>
#include <QProcess>
#include <QQmlComponent>
#include <QQuickTextDocument>
#include <QTextBlock>
#include <QTextDocument>

namespace {

/// The portal's settings interface, answering only the colour scheme.
class FakePortal : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.portal.Settings")

public:
    uint scheme = 0;

public Q_SLOTS:
    QDBusVariant ReadOne(const QString &group, const QString &key)
    {
        Q_UNUSED(group);
        Q_UNUSED(key);
        return QDBusVariant(scheme);
    }
};

/// WCAG's contrast ratio of two opaque colours.
double contrast(const QColor &a, const QColor &b)
{
    const auto luminance = [](const QColor &c) {
        const auto channel = [](double v) { return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); };
        return 0.2126 * channel(c.redF()) + 0.7152 * channel(c.greenF()) + 0.0722 * channel(c.blueF());
    };
    const double la = luminance(a), lb = luminance(b);
    return (std::max(la, lb) + 0.05) / (std::min(la, lb) + 0.05);
}

} // namespace

class TestAppearanceWindow : public WindowTest
{
    Q_OBJECT

private:
    PrivateBus m_bus;
    FakePortal m_portal;

    /// Tells the window the desktop changed its scheme, as the portal does.
    void setDesktopScheme(uint scheme)
    {
        m_portal.scheme = scheme;
        QDBusMessage changed = QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/portal/desktop"),
                                                          QStringLiteral("org.freedesktop.portal.Settings"),
                                                          QStringLiteral("SettingChanged"));
        changed << QStringLiteral("org.freedesktop.appearance") << QStringLiteral("color-scheme")
                << QVariant::fromValue(QDBusVariant(scheme));
        QVERIFY(QDBusConnection(QStringLiteral("portal")).send(changed));
    }

    /// The window's background as drawn.
    QColor drawnBackground()
    {
        const QImage picture = m_window->grabWindow();
        return picture.pixelColor(picture.width() - 5, picture.height() - 5);
    }

    /// The theme's colours in the scheme now shown.
    QVariantMap themeColours()
    {
        QQmlComponent component(&m_engine);
        // Beside the window's own files, where the theme is found as they find it.
        component.setData("import QtQuick\nQtObject {\n"
                          "  property var colours: ({ window: Theme.window, surface: Theme.surface, text: Theme.text,\n"
                          "    secondaryText: Theme.secondaryText, accent: Theme.accent, error: Theme.error,\n"
                          "    errorBackground: Theme.errorBackground, sidebar: Theme.sidebar, selection: Theme.selection,\n"
                          "    folderSelection: Theme.folderSelection, hover: Theme.hover, userBubble: Theme.userBubble,\n"
                          "    found: Theme.found, codeBackground: Theme.codeBackground })\n}\n",
                          QUrl(QStringLiteral("qrc:/qt/qml/Corvane/ThemeProbe.qml")));
        std::unique_ptr<QObject> object(component.create());
        return object ? object->property("colours").toMap() : QVariantMap();
    }

private Q_SLOTS:
    void initTestCase()
    {
        // The bus comes first: the application reads the scheme from the session bus it finds.
        const QByteArray address = m_bus.start().toUtf8();
        QVERIFY(!address.isEmpty());
        qputenv("DBUS_SESSION_BUS_ADDRESS", address);
        QDBusConnection portal = QDBusConnection::connectToBus(QString::fromUtf8(address), QStringLiteral("portal"));
        QVERIFY(portal.registerObject(QStringLiteral("/org/freedesktop/portal/desktop"), &m_portal,
                                      QDBusConnection::ExportAllSlots));
        QVERIFY(portal.registerService(QStringLiteral("org.freedesktop.portal.Desktop")));

        // A chat model counts as installed, so that the window shows the chat, not the set-up.
        const QString support = useScratchData();
        m_model = std::make_unique<AppModel>(QList<ModelSpec>{linkTestChatModel(support)});
        const qint64 chat = m_model->database().addChat(1, QStringLiteral("Colours"));
        addMessage(m_model->database(), chat, QStringLiteral("Show me a loop."));
        Message reply;
        reply.chatID = chat;
        reply.role = QStringLiteral("assistant");
        reply.body = QStringLiteral("Here is one:\n\n```python\n# count up\nfor i in range(3):\n    print(\"n\", i)\n```\n\n"
                                    "Or indented, shaded inside the text:\n\n    while True: pass\n\nSee [the docs](https://docs.python.org).\n");
        reply.createdAt = QStringLiteral("2026-11-24T10:00:00Z");
        m_model->database().addMessage(reply);
        m_model->tree()->reload();
        m_model->tree()->selectChat(chat);
        m_model->settings()->setGlobalAgentName(QStringLiteral("Corvane"));
        showWindow();
    }

    void cleanupTestCase()
    {
        QDBusConnection::disconnectFromBus(QStringLiteral("portal"));
    }

    void followsTheDesktopWhileOpen()
    {
        // The portal said "no preference": the palette decides, and offscreen it is light.
        QVERIFY(!m_model->appearance()->isDark());
        QVERIFY(drawnBackground().lightness() > 200);
        savePicture(QStringLiteral("main-window-light.png"));
        // A desktop without the portal that turns dark changes the palette instead.
        const QPalette light = QGuiApplication::palette();
        QPalette dark = light;
        dark.setColor(QPalette::Window, QColor(0x20, 0x20, 0x24));
        QGuiApplication::setPalette(dark);
        QTRY_VERIFY(m_model->appearance()->isDark());
        QGuiApplication::setPalette(light);
        QTRY_VERIFY(!m_model->appearance()->isDark());

        setDesktopScheme(1);
        QTRY_VERIFY(m_model->appearance()->isDark());
        QTRY_VERIFY(drawnBackground().lightness() < 60);
        savePicture(QStringLiteral("main-window-dark.png"));

        setDesktopScheme(2);
        QTRY_VERIFY(!m_model->appearance()->isDark());
    }

    void theUsersChoiceWins_data()
    {
        QTest::addColumn<QString>("choice");
        QTest::addColumn<uint>("desktop");
        QTest::addColumn<bool>("dark");
        QTest::newRow("dark on a light desktop") << "dark" << 2u << true;
        QTest::newRow("light on a dark desktop") << "light" << 1u << false;
        QTest::newRow("the system's, dark") << "system" << 1u << true;
        QTest::newRow("the system's, light") << "system" << 2u << false;
        QTest::newRow("nonsense is ignored") << "purple" << 1u << true;
    }

    void theUsersChoiceWins()
    {
        QFETCH(QString, choice);
        QFETCH(uint, desktop);
        QFETCH(bool, dark);
        m_model->appearance()->setChoice(QStringLiteral("system"));
        setDesktopScheme(desktop);
        QTRY_COMPARE(m_model->appearance()->isDark(), desktop == 1);
        m_model->appearance()->setChoice(choice);
        QCOMPARE(m_model->appearance()->isDark(), dark);
        QTRY_COMPARE(drawnBackground().lightness() < 128, dark);
        // Kept for the next start.
        const QString kept = choice == "purple" ? QStringLiteral("system") : choice;
        QCOMPARE(m_model->database().setting(QStringLiteral("appearance")).value_or(QStringLiteral("system")), kept);
    }

    void textKeepsItsContrast_data()
    {
        QTest::addColumn<QString>("choice");
        QTest::newRow("light") << "light";
        QTest::newRow("dark") << "dark";
    }

    void textKeepsItsContrast()
    {
        QFETCH(QString, choice);
        m_model->appearance()->setChoice(choice);
        const QVariantMap colours = themeColours();
        QVERIFY(!colours.isEmpty());
        const auto colour = [&](const QString &name) { return colours.value(name).value<QColor>(); };
        // Each text colour on each background it is drawn on: 4.5 to 1 is WCAG AA for text.
        // The accent is text too: search matches on the hit rows, links in messages.
        const QList<std::pair<QString, QStringList>> pairs = {
            {"text", {"window", "surface", "sidebar", "selection", "folderSelection", "hover", "userBubble", "found",
                      "codeBackground"}},
            {"secondaryText", {"window", "surface", "sidebar", "selection", "folderSelection", "hover", "userBubble",
                               "found"}},
            {"accent", {"window", "surface", "selection", "folderSelection", "userBubble", "found"}},
            {"error", {"window", "surface", "errorBackground"}},
        };
        QStringList faint;
        for (const auto &[text, backgrounds] : pairs)
            for (const QString &background : backgrounds)
                if (const double ratio = contrast(colour(text), colour(background)); ratio < 4.5)
                    faint << QStringLiteral("%1 on %2: %3").arg(text, background).arg(ratio, 0, 'f', 2);
        // The code colours on the code box.
        for (const QColor &c : CodeHighlighter::colours(choice == "dark"))
            if (const double ratio = contrast(c, colour("codeBackground")); ratio < 4.5)
                faint << QStringLiteral("code %1 on codeBackground: %2").arg(c.name()).arg(ratio, 0, 'f', 2);
        QVERIFY2(faint.isEmpty(), qPrintable(faint.join(QStringLiteral("; "))));

        // Links in a message take the accent, not the application palette's blue.
        QStringList links;
        for (QQuickItem *text : findItems(m_window, QStringLiteral("messageText"))) {
            const QTextDocument *document = text->property("textDocument").value<QQuickTextDocument *>()->textDocument();
            for (QTextBlock block = document->begin(); block.isValid(); block = block.next())
                for (auto it = block.begin(); !it.atEnd(); ++it)
                    if (it.fragment().charFormat().isAnchor())
                        links << it.fragment().charFormat().foreground().color().name();
        }
        QCOMPARE(links, QStringList{colour("accent").name()});
    }
};

QTEST_MAIN(TestAppearanceWindow)
#include "tst_appearance_window.moc"
