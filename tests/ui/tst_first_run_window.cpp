// The window as a new user first sees it: titled Corvane, showing the set-up screen's texts
// while no chat model is installed. A picture of it is saved under build/test-output/.
#include "app/app_model.h"
#include "qml_types.h"
#include "window_test_support.h"

#include <QDir>
#include <QGuiApplication>
#include <QImage>
#include <QQmlApplicationEngine>
#include <QQmlExtensionPlugin>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

Q_IMPORT_QML_PLUGIN(CorvanePlugin)


class TestFirstRunWindow : public WindowTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        useScratchData();
        m_model = std::make_unique<AppModel>();
        showWindow();
    }

    void createsTheDataDirectory()
    {
        QVERIFY(QFileInfo(m_data.filePath(QStringLiteral("Corvane/chats.sqlite"))).isFile());
    }

    void showsTheFirstRunTexts_data()
    {
        QTest::addColumn<QString>("objectName");
        QTest::addColumn<QString>("text");
        QTest::newRow("title") << "firstRunTitle" << "Welcome to Corvane";
        QTest::newRow("introduction")
            << "firstRunIntro"
            << "Corvane runs entirely on your computer, so your chats stay private. Download a chat "
               "model to get started. After that, everything works offline.";
        QTest::newRow("model advice")
            << "firstRunModels"
            << "Smaller chat models reply faster; larger ones write better but need more memory. Each "
               "chat model can also read images. Dictation turns your voice into text. You can change "
               "models later in Settings.";
    }

    void showsTheFirstRunTexts()
    {
        QFETCH(QString, objectName);
        QFETCH(QString, text);
        QCOMPARE(m_window->title(), QStringLiteral("Corvane"));
        QQuickItem *item = findItem(m_window, objectName);
        QVERIFY2(item, qPrintable(objectName));
        QCOMPARE(item->property("text").toString(), text);
        QVERIFY(item->isVisible());
        QVERIFY(item->width() > 0 && item->height() > 0);
    }

    void savesAPictureThatShowsText() { savePicture(QStringLiteral("first-run.png"), 0); }

    void offersEveryChatModel()
    {
        QQuickItem *list = findItem(m_window, QStringLiteral("firstRunModelList"));
        QVERIFY(list);
        QCOMPARE(list->property("count").toInt(), 8);
        // Nothing downloads yet, so there is no progress to show.
        QVERIFY(!findItem(m_window, QStringLiteral("firstRunProgress"))->isVisible());
    }

    void skippingShowsTheChats()
    {
        QQuickItem *skip = findItem(m_window, QStringLiteral("firstRunSkip"));
        QVERIFY(skip);
        QVERIFY(QMetaObject::invokeMethod(skip, "clicked"));
        QTRY_VERIFY(findItem(m_window, QStringLiteral("noChatSelected")));
        QTRY_VERIFY(!findItem(m_window, QStringLiteral("firstRunTitle")));
    }

    void aChatWithoutAModelAsksForOne()
    {
        m_model->tree()->addChat(-1);
        QQuickItem *heading = findItem(m_window, QStringLiteral("emptyChatHeading"));
        QVERIFY(heading);
        QTRY_VERIFY(heading->isVisible());
        QCOMPARE(heading->property("text").toString(), QStringLiteral("Install a chat model"));
        QCOMPARE(findItem(m_window, QStringLiteral("emptyChatText"))->property("text").toString(),
                 QStringLiteral("Corvane needs a chat model on this computer before it can reply."));
    }

    void closingTheWindowEndsTheApplication()
    {
        // Runs the application's own event loop, as main() does: closing the last window
        // must end it with status 0. The guard ends it with 1 if closing does not.
        QTimer::singleShot(0, m_window, [this] { m_window->close(); });
        QTimer guard;
        guard.setSingleShot(true);
        connect(&guard, &QTimer::timeout, qApp, [] { QCoreApplication::exit(1); });
        guard.start(10000);
        QCOMPARE(QGuiApplication::exec(), 0);
        QVERIFY(!m_window->isVisible());
    }
};

QTEST_MAIN(TestFirstRunWindow)
#include "tst_first_run_window.moc"
