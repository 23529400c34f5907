#pragma once

// Finding the window's items, typing into it and saving pictures of it, for the window tests.

#include <QDir>
#include <QImage>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTest>

#include <functional>

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

