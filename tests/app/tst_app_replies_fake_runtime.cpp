// Replies the real model cannot be made to give, answered by the stand-in llama-server: white
// space only, text with white space around it, and replies about an image, which need a vision
// projector that cannot be generated here.
#include "reply_fixture.h"

#include "app/chat_images.h"
#include "images/image_store.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QImage>
#include <QMimeData>
#include <QTest>

class TestAppRepliesFakeRuntime : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void replyTextIsTrimmedWithFakeServer_data()
    {
        QTest::addColumn<QString>("pieces");
        QTest::addColumn<QString>("stored");
        QTest::newRow("white space only stores nothing") << " |\n|\t \n" << "";
        QTest::newRow("surrounding white space is trimmed") << "\n  Hello|, world| \n" << "Hello, world";
    }

    void replyTextIsTrimmedWithFakeServer()
    {
        QFETCH(QString, pieces);
        QFETCH(QString, stored);
        qputenv("CORVANE_FAKE_REPLY", pieces.toUtf8());
        ReplyFixture f;
        const qint64 chat = f.newChat();
        f.send(QStringLiteral("Say something"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), 30000);
        QCOMPARE(f.status(), QStringLiteral("Ready"));
        QVERIFY(!f.model->status()->isError());

        const QList<Message> messages = f.db().messages(chat);
        QCOMPARE(f.session().messages(), messages);
        QCOMPARE(messages.first().body, QStringLiteral("Say something"));
        if (stored.isEmpty()) {
            QCOMPARE(messages.size(), 1);
        } else {
            QCOMPARE(messages.size(), 2);
            QCOMPARE(messages.last().body, stored);
        }
    }

    void pastesOnlyPicturesWithFakeServer_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("picture");
        QTest::addColumn<QString>("file");
        QTest::addColumn<bool>("attached");
        QTest::newRow("a picture") << "" << true << "" << true;
        QTest::newRow("text wins over a picture of it") << "A1\tB1" << true << "" << false;
        QTest::newRow("text only") << "hello" << false << "" << false;
        QTest::newRow("a copied picture file") << "" << false << "photo.png" << true;
        QTest::newRow("a copied document") << "" << false << "notes.txt" << false;
    }

    void pastesOnlyPicturesWithFakeServer()
    {
        QFETCH(QString, text);
        QFETCH(bool, picture);
        QFETCH(QString, file);
        QFETCH(bool, attached);
        ReplyFixture f(ReplyFixture::StandInProjector);
        f.newChat();
        QTemporaryDir files;
        auto *mime = new QMimeData;
        if (!text.isEmpty())
            mime->setText(text);
        if (picture)
            mime->setImageData(redPicture());
        if (!file.isEmpty()) {
            const QString path = files.filePath(file);
            QVERIFY(redPicture().save(path, "PNG"));
            mime->setUrls({QUrl::fromLocalFile(path)});
        }
        QGuiApplication::clipboard()->setMimeData(mime);

        ChatImages &images = *f.model->images();
        QCOMPARE(images.pasteImage(), attached);
        if (attached)
            QTRY_VERIFY(!images.pendingImage().isEmpty());
        QTRY_VERIFY(!images.isImporting());
        QCOMPARE(images.pendingImage().isEmpty(), !attached);
        QVERIFY(!f.model->status()->isError());
    }

    void repliesAboutAnImageWithFakeServer()
    {
        qputenv("CORVANE_FAKE_DESCRIPTION", "A red square on white.");
        qputenv("CORVANE_FAKE_REPLY", "It is red.");
        ReplyFixture f(ReplyFixture::StandInProjector);
        const qint64 chat = f.newChat();
        QGuiApplication::clipboard()->setImage(redPicture());
        ChatImages &images = *f.model->images();
        QVERIFY(images.pasteImage());
        QTRY_VERIFY(!images.pendingImage().isEmpty());
        const QString name = images.pendingImage();

        f.send(QStringLiteral("What is this?"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), 30000);
        QCOMPARE(f.status(), QStringLiteral("Ready"));
        QVERIFY(f.statuses.contains(QStringLiteral("Looking at the image…")));
        QVERIFY(images.pendingImage().isEmpty());

        const QList<Message> messages = f.db().messages(chat);
        QCOMPARE(messages.size(), 2);
        QCOMPARE(messages.first().image, name);
        QCOMPARE(messages.first().imageDescription, QStringLiteral("A red square on white."));
        QCOMPARE(messages.last().body, QStringLiteral("It is red."));

        // The picture itself went to be described, then with the message to the model.
        const QByteArray picture = "data:image/jpeg;base64," + images.store().data(name).toBase64();
        QCOMPARE(f.completions.size(), 2);
        QVERIFY(!f.completions.first().value(QStringLiteral("stream")).toBool());
        QVERIFY(QJsonDocument(f.completions.first()).toJson().contains(picture));
        QVERIFY(f.completions.last().value(QStringLiteral("stream")).toBool());
        QVERIFY(QJsonDocument(f.completions.last()).toJson().contains(picture));

        // The description is searchable.
        const QList<SearchHit> hits = f.db().search(QStringLiteral("red square"));
        QVERIFY(std::ranges::any_of(hits, [&](const SearchHit &hit) { return hit.id == messages.first().id; }));

        // A second reply describes nothing again.
        f.completions.clear();
        f.send(QStringLiteral("And now?"));
        QTRY_VERIFY_WITH_TIMEOUT(f.idle(), 30000);
        QCOMPARE(f.completions.size(), 1);
    }

private:
    static QImage redPicture()
    {
        QImage picture(64, 48, QImage::Format_RGB32);
        picture.fill(Qt::red);
        return picture;
    }
};

QTEST_MAIN(TestAppRepliesFakeRuntime)
#include "tst_app_replies_fake_runtime.moc"
