// The last-resort idle time: only the user's input to our own windows counts as activity.
#include "platform/input_activity.h"

#include <QTest>
#include <QWindow>

#include <functional>

using namespace std::chrono_literals;

using Action = std::function<void(QWindow &)>;
Q_DECLARE_METATYPE(Action)

class TestInputActivity : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void onlyInputCounts_data()
    {
        QTest::addColumn<Action>("action");
        QTest::addColumn<bool>("counts");
        QTest::newRow("key") << Action([](QWindow &w) { QTest::keyClick(&w, Qt::Key_A); }) << true;
        QTest::newRow("click") << Action([](QWindow &w) { QTest::mouseClick(&w, Qt::LeftButton); }) << true;
        QTest::newRow("pointer moved") << Action([](QWindow &w) { QTest::mouseMove(&w, QPoint(5, 7)); }) << true;
        QTest::newRow("touch") << Action([](QWindow &w) {
            static QPointingDevice *const screen = QTest::createTouchDevice();
            QTest::touchEvent(&w, screen).press(0, QPoint(3, 3), &w);
            QTest::touchEvent(&w, screen).release(0, QPoint(3, 3), &w);
        }) << true;
        QTest::newRow("window resized") << Action([](QWindow &w) {
            w.resize(w.size() + QSize(10, 10));
            QCoreApplication::processEvents();
        }) << false;
        QTest::newRow("key sent by the program") << Action([](QWindow &w) {
            QKeyEvent press(QEvent::KeyPress, Qt::Key_A, Qt::NoModifier, QStringLiteral("a"));
            QCoreApplication::sendEvent(&w, &press);
        }) << false;
    }

    void onlyInputCounts()
    {
        QFETCH(Action, action);
        QFETCH(bool, counts);
        QWindow window;
        window.resize(100, 80);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        InputActivity activity;
        QTRY_VERIFY(activity.sinceLastInput() >= 400ms);
        action(window);
        QCOMPARE(activity.sinceLastInput() < 400ms, counts);
    }
};

QTEST_MAIN(TestInputActivity)
#include "tst_input_activity.moc"
