// Images as the user meets them in the window: a photo dropped on the chat waits in the
// composer, goes with the message, shows in it with what the model saw in it and opens large;
// a picture pasted with Ctrl+V waits too and can be removed; locking the folder seals the file
// and opening it again shows the picture. The stand-in llama-server answers, since no vision
// projector can be generated here. Pictures go to build/test-output/.
#include "app/app_model.h"
#include "app/chat_images.h"
#include "images/image_store.h"
#include "qml_types.h"
#include "support/await_task.h"
#include "support/test_chat_model.h"
#include "window_test_support.h"

#include <QAccessible>
#include <QClipboard>
#include <QGuiApplication>
#include <QLinearGradient>
#include <QMimeData>
#include <QPainter>
#include <QQmlExtensionPlugin>
#include <QTest>

Q_IMPORT_QML_PLUGIN(CorvanePlugin)

namespace {

const QString s_password = QStringLiteral("correct horse");
const QString s_description = QStringLiteral("A red boat on a blue lake.");
constexpr int s_slow = 30000;

} // namespace

class TestImageWindow : public WindowTest
{
    Q_OBJECT

private:
    qint64 m_folder = -1;
    qint64 m_chat = -1;
    QString m_sent;

    ChatImages &images() { return *m_model->images(); }
    QByteArray fileOf(const QString &name)
    {
        QFile file(images().store().directory() + QLatin1Char('/') + name);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    /// Drops `url` on the middle of the chat, as a file manager does.
    void drop(const QUrl &url)
    {
        QQuickItem *pane = findItem(m_window, "chatDropArea");
        QVERIFY(pane);
        const QPointF at = pane->mapToScene({pane->width() / 2, pane->height() / 2});
        QMimeData mime;
        mime.setUrls({url});
        QDragEnterEvent enter(at.toPoint(), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(m_window, &enter);
        QDragMoveEvent move(at.toPoint(), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(m_window, &move);
        QDropEvent dropped(at, Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(m_window, &dropped);
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString support = useScratchData();
        qputenv("CORVANE_FAKE_DESCRIPTION", s_description.toUtf8());
        qputenv("CORVANE_FAKE_REPLY", "A boat|, out on the water.");
        m_model = std::make_unique<AppModel>(QList<ModelSpec>{linkTestChatModel(support), writeTestProjector(support)});
        QVERIFY(m_model->models()->hasImageSupport());
        m_folder = m_model->tree()->addFolder(-1);
        m_model->tree()->renameNode(m_folder, QStringLiteral("Trips"));
        m_model->tree()->addChat(m_folder);
        m_chat = m_model->tree()->selectedChatID();
        m_model->tree()->renameChat(m_chat, QStringLiteral("The lake"));
        showWindow();
    }

    void aDroppedPhotoIsSentAndShown()
    {
        // A landscape photo, larger than what is kept.
        QImage photo(1600, 1200, QImage::Format_RGB32);
        QPainter painter(&photo);
        QLinearGradient sky(0, 0, 0, 1200);
        sky.setColorAt(0, QColor(90, 150, 220));
        sky.setColorAt(1, QColor(20, 60, 120));
        painter.fillRect(photo.rect(), sky);
        painter.fillRect(QRect(600, 700, 400, 150), QColor(200, 30, 30));
        painter.end();
        const QString path = m_data.filePath(QStringLiteral("boat.png"));
        QVERIFY(photo.save(path));

        drop(QUrl::fromLocalFile(path));
        QTRY_VERIFY(!images().pendingImage().isEmpty());
        QTRY_COMPARE(object("pendingImage")->property("status").toInt(), 1); // Image.Ready
        QVERIFY(findItem(m_window, "removePendingImage")->isVisible());
        m_sent = images().pendingImage();
        savePicture(QStringLiteral("image-pending.png"));

        click(QStringLiteral("sendButton"));
        QTRY_VERIFY_WITH_TIMEOUT(!m_model->chat()->isGenerating() && m_model->chat()->messages().size() == 2, s_slow);
        QVERIFY2(!m_model->status()->isError(), qPrintable(m_model->status()->text()));
        QVERIFY(images().pendingImage().isEmpty());
        QTRY_VERIFY(findItem(m_window, "messageImage") && findItem(m_window, "messageImage")->isVisible());
        QCOMPARE(accessibleName("messageImage"), QStringLiteral("Image: ") + s_description);
        // Scaled to the column: never wider than the chat.
        QVERIFY(findItem(m_window, "messageImage")->width() <= findItem(m_window, "chatDropArea")->width());
        savePicture(QStringLiteral("image-sent.png"));

        click(QStringLiteral("messageImage"));
        QTRY_VERIFY(isOpened("imagePopup"));
        savePicture(QStringLiteral("image-large.png"));
        closePopup("imagePopup");
    }

    void aPastedPictureWaitsAndCanBeRemoved()
    {
        QImage picture(300, 200, QImage::Format_ARGB32);
        picture.fill(QColor(0, 128, 0, 128));
        QGuiApplication::clipboard()->setImage(picture);
        findItem(m_window, "composerInput")->forceActiveFocus();
        QTest::keyClick(m_window, Qt::Key_V, Qt::ControlModifier);
        QTRY_VERIFY(!images().pendingImage().isEmpty());
        // The picture is not pasted as text as well.
        QCOMPARE(m_model->chat()->composer(), QString());
        const QString pasted = images().pendingImage();
        QVERIFY(!fileOf(pasted).isEmpty());

        click(QStringLiteral("removePendingImage"));
        QTRY_VERIFY(images().pendingImage().isEmpty());
        QVERIFY(fileOf(pasted).isEmpty());
    }

    void lockingSealsThePictureAndOpeningShowsIt()
    {
        const QByteArray plain = fileOf(m_sent);
        QVERIFY(plain.startsWith("\xff\xd8"));
        QVERIFY(awaitTask(m_model->locks()->createVault(s_password, m_folder)));
        QTRY_VERIFY_WITH_TIMEOUT(fileOf(m_sent).startsWith(ImageStore::sealedMarker), s_slow);
        QVERIFY(!fileOf(m_sent).contains(plain.mid(plain.size() / 2, 32)));

        QVERIFY(awaitTask(m_model->locks()->unlock(s_password, {.kind = UnlockPurpose::Open, .folderID = m_folder})));
        m_model->tree()->selectChat(m_chat);
        QTRY_VERIFY(findItem(m_window, "messageImage") && findItem(m_window, "messageImage")->isVisible());
        QCOMPARE(accessibleName("messageImage"), QStringLiteral("Image: ") + s_description);
        // Open is not plain: the file stays sealed while the folder is open.
        QVERIFY(fileOf(m_sent).startsWith(ImageStore::sealedMarker));
        savePicture(QStringLiteral("image-unlocked.png"));
    }
};

QTEST_MAIN(TestImageWindow)
#include "tst_image_window.moc"
