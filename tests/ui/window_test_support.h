#pragma once

// Finding the window's items, typing into it and saving pictures of it, for the window tests.

#include "app/app_model.h"
#include "qml_types.h"
#include "stored_image_provider.h"

#include <QAccessible>
#include <QDir>
#include <QImage>
#include <QQmlApplicationEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <memory>

// Items that a Loader or a view creates are reachable through the visual tree, not QObject
// children; popups and their dialogs are QObject children. A view's rows share object names,
// so a visible match is preferred.
inline QObject *findObject(QQuickWindow *window, const QString &objectName)
{
    QQuickItem *hidden = nullptr;
    std::function<QQuickItem *(QQuickItem *)> visit = [&](QQuickItem *item) -> QQuickItem * {
        if (item->objectName() == objectName) {
            if (item->isVisible())
                return item;
            if (!hidden)
                hidden = item;
        }
        for (QQuickItem *child : item->childItems())
            if (QQuickItem *found = visit(child))
                return found;
        return nullptr;
    };
    if (QQuickItem *item = visit(window->contentItem()))
        return item;
    if (hidden)
        return hidden;
    return window->findChild<QObject *>(objectName);
}

inline QQuickItem *findItem(QQuickWindow *window, const QString &objectName)
{
    return qobject_cast<QQuickItem *>(findObject(window, objectName));
}

/// Every visible item named `objectName`, in the order of the visual tree.
inline QList<QQuickItem *> findItems(QQuickWindow *window, const QString &objectName)
{
    QList<QQuickItem *> found;
    std::function<void(QQuickItem *)> visit = [&](QQuickItem *item) {
        if (!item->isVisible())
            return;
        if (item->objectName() == objectName)
            found.append(item);
        for (QQuickItem *child : item->childItems())
            visit(child);
    };
    visit(window->contentItem());
    return found;
}

// QTest::keyClicks exists only for widgets.
inline void typeInto(QWindow *window, const QString &text)
{
    for (const QChar c : text)
        QTest::keyClick(window, c.toLatin1());
}

// Dark pixels on the light window: text was drawn.
inline int darkPixels(const QImage &image)
{
    int dark = 0;
    for (int y = 0; y < image.height(); y += 2)
        for (int x = 0; x < image.width(); x += 2)
            dark += qGray(image.pixel(x, y)) < 100;
    return dark;
}

/// Every item a screen reader is offered that is not on screen: its role, name and object
/// name. A screen reader must hear exactly what is shown.
inline QStringList hiddenAccessibleItems(QQuickWindow *window)
{
    QStringList hidden;
    std::function<void(QAccessibleInterface *)> visit = [&](QAccessibleInterface *node) {
        if (!node || !node->isValid())
            return;
        auto *item = qobject_cast<QQuickItem *>(node->object());
        if (item && (!item->isVisible() || item->opacity() == 0 || node->state().invisible)) {
            hidden << QStringLiteral("%1 \"%2\" (%3)")
                          .arg(QString::fromLatin1(QMetaEnum::fromType<QAccessible::Role>().valueToKey(node->role())),
                               node->text(QAccessible::Name), item->objectName());
            return;
        }
        for (int i = 0; i < node->childCount(); ++i)
            visit(node->child(i));
    };
    visit(QAccessible::queryAccessibleInterface(window));
    return hidden;
}

/// Saves a picture of the window under build/test-output/ once it settled (positioning,
/// popups' transitions), and checks that text was drawn.
inline void savePicture(QQuickWindow *window, const QString &name, int settleMs = 300)
{
    QTest::qWait(settleMs);
    const QImage image = window->grabWindow();
    QVERIFY(!image.isNull());
    QVERIFY(QDir().mkpath(QStringLiteral(CORVANE_TEST_OUTPUT_DIR)));
    QVERIFY(image.save(QStringLiteral(CORVANE_TEST_OUTPUT_DIR "/") + name));
    QVERIFY2(darkPixels(image) > 200, qPrintable(name));
}


/// A window test's fixture: a scratch data folder, the application model and the window
/// loaded over it. Any QML warning fails the test. The model is declared before the engine,
/// so that the window goes first at the end.
class WindowTest : public QObject
{
protected:
    QTemporaryDir m_data;
    std::unique_ptr<AppModel> m_model;
    QQmlApplicationEngine m_engine;
    QQuickWindow *m_window = nullptr;

    /// The data folder the model is to use: m_data's "Corvane", set for the model to find.
    QString useScratchData()
    {
        QTest::failOnWarning(QRegularExpression(QStringLiteral("qrc:/")));
        const QString support = m_data.filePath(QStringLiteral("Corvane"));
        qputenv("CORVANE_DATA_DIR", support.toUtf8());
        return support;
    }

    /// Loads the window over m_model and waits until it is drawn.
    void showWindow()
    {
        AppModelSingleton::instance = m_model.get();
        m_engine.addImageProvider(QLatin1String(StoredImageProvider::id), new StoredImageProvider(m_model->images()));
        m_engine.load(QUrl(QStringLiteral("qrc:/qt/qml/Corvane/Main.qml")));
        QCOMPARE(m_engine.rootObjects().size(), 1);
        m_window = qobject_cast<QQuickWindow *>(m_engine.rootObjects().first());
        QVERIFY(m_window);
        QVERIFY(QTest::qWaitForWindowExposed(m_window));
    }

    QObject *object(const QString &name) { return findObject(m_window, name); }
    QString textOf(const QString &name)
    {
        QObject *found = object(name);
        return found ? found->property("text").toString() : QStringLiteral("<missing %1>").arg(name);
    }
    bool isOpened(const QString &popup) { return object(popup)->property("opened").toBool(); }
    void closePopup(const QString &name)
    {
        QObject *popup = object(name);
        QVERIFY(popup);
        QVERIFY(QMetaObject::invokeMethod(popup, "close"));
        QTRY_VERIFY(!popup->property("visible").toBool());
    }
    void type(const QString &text) { typeInto(m_window, text); }
    /// Clicks the middle of `item`, drawn first as the user sees it: a menu lays out the
    /// entries it just hid or showed before its first frame.
    void click(QQuickItem *item, Qt::MouseButton button = Qt::LeftButton)
    {
        m_window->grabWindow();
        QVERIFY(item && item->isVisible());
        const QPointF centre(item->width() / 2, item->height() / 2);
        QTest::mouseClick(m_window, button, {}, item->mapToScene(centre).toPoint());
    }
    void click(const QString &name, Qt::MouseButton button = Qt::LeftButton)
    {
        QQuickItem *item = findItem(m_window, name);
        QVERIFY2(item, qPrintable(name));
        click(item, button);
    }
    /// What a screen reader says for the item `name`.
    QString accessibleName(const QString &name)
    {
        QAccessibleInterface *node = QAccessible::queryAccessibleInterface(object(name));
        return node ? node->text(QAccessible::Name) : QStringLiteral("<missing %1>").arg(name);
    }
    void savePicture(const QString &name, int settleMs = 300) { ::savePicture(m_window, name, settleMs); }
};
