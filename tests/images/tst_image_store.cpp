// The images folder with Qt's own image stack: orientation, size bounds, transparency,
// unreadable files, sealed files and their key, matching files to their chats' lock, pruning
// and the token estimate.
#include "images/image_store.h"
#include "vault/sealed_box.h"
#include "vault/vault_error.h"

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QImageWriter>
#include <QTemporaryDir>
#include <QTest>

namespace {

/// Red on the left half, blue on the right, stored with `transformation` in its EXIF data.
QString writePhoto(const QString &path, QImageIOHandler::Transformations transformation, QSize size = {40, 20})
{
    QImage picture(size, QImage::Format_RGB32);
    picture.fill(Qt::blue);
    for (int y = 0; y < size.height(); ++y)
        for (int x = 0; x < size.width() / 2; ++x)
            picture.setPixel(x, y, qRgb(255, 0, 0));
    QImageWriter writer(path, "jpeg");
    writer.setTransformation(transformation);
    writer.setQuality(95);
    if (!writer.write(picture))
        qFatal("could not write %s", qPrintable(path));
    return path;
}

QImage decoded(const QByteArray &jpeg)
{
    return QImage::fromData(jpeg, "JPEG");
}

bool reddish(QRgb pixel)
{
    return qRed(pixel) > 180 && qBlue(pixel) < 80;
}

} // namespace

class TestImageStore : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<ImageStore> m_store;

    QString file(const QString &name) const { return m_dir->filePath(name); }
    QByteArray stored(const QString &name) const
    {
        QFile f(m_store->directory() + "/" + name);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(QDir(m_dir->path()).mkpath("Images"));
        m_store = std::make_unique<ImageStore>(m_dir->filePath("Images"));
    }

    void orientationIsApplied_data()
    {
        QTest::addColumn<int>("transformation");
        QTest::addColumn<QSize>("size");
        QTest::addColumn<bool>("redTopLeft");
        QTest::newRow("as taken") << int(QImageIOHandler::TransformationNone) << QSize(40, 20) << true;
        QTest::newRow("turned a quarter right") << int(QImageIOHandler::TransformationRotate90) << QSize(20, 40) << true;
        QTest::newRow("upside down") << int(QImageIOHandler::TransformationRotate180) << QSize(40, 20) << false;
        QTest::newRow("turned a quarter left") << int(QImageIOHandler::TransformationRotate270) << QSize(20, 40) << false;
        QTest::newRow("mirrored") << int(QImageIOHandler::TransformationMirror) << QSize(40, 20) << false;
    }

    void orientationIsApplied()
    {
        QFETCH(int, transformation);
        QFETCH(QSize, size);
        QFETCH(bool, redTopLeft);
        const QString name = m_store->import(writePhoto(file("photo.jpg"), QImageIOHandler::Transformations(transformation)), false);
        QVERIFY(QRegularExpression("^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}\\.jpg$").match(name).hasMatch());
        const QImage image = decoded(stored(name));
        QCOMPARE(image.size(), size);
        QCOMPARE(reddish(image.pixel(2, 2)), redTopLeft);
        QCOMPARE(reddish(image.pixel(image.width() - 3, image.height() - 3)), !redTopLeft);
    }

    void sizeIsBounded_data()
    {
        QTest::addColumn<QSize>("original");
        QTest::addColumn<QSize>("kept");
        QTest::newRow("a large photo") << QSize(4000, 3000) << QSize(1024, 768);
        QTest::newRow("a tall one") << QSize(1000, 2048) << QSize(500, 1024);
        QTest::newRow("a small one keeps its size") << QSize(500, 300) << QSize(500, 300);
    }

    void sizeIsBounded()
    {
        QFETCH(QSize, original);
        QFETCH(QSize, kept);
        const QString name = m_store->import(writePhoto(file("big.jpg"), QImageIOHandler::TransformationNone, original), false);
        QCOMPARE(decoded(stored(name)).size(), kept);
        QCOMPARE(m_store->estimatedTokens(name), std::max(int(std::ceil(kept.width() / 32.0) * std::ceil(kept.height() / 32.0)), 16) + 8);
    }

    void transparencyBecomesWhite()
    {
        QImage clear(30, 30, QImage::Format_ARGB32);
        clear.fill(Qt::transparent);
        QVERIFY(clear.save(file("clear.png")));
        const QImage image = decoded(stored(m_store->import(file("clear.png"), false)));
        QVERIFY(qGray(image.pixel(15, 15)) > 245);
    }

    void whatIsNoImageIsRefused()
    {
        QFile text(file("notes.png"));
        QVERIFY(text.open(QIODevice::WriteOnly) && text.write("not a picture") > 0);
        text.close();
        for (const QString &path : {file("notes.png"), file("missing.jpg")}) {
            try {
                m_store->import(path, false);
                QFAIL("imported");
            } catch (const ImageStoreError &error) {
                QCOMPARE(error.description(), "That file could not be read as an image");
            }
        }
        QCOMPARE(QDir(m_store->directory()).entryList(QDir::Files), QStringList());
    }

    void sealedImagesNeedTheirKey()
    {
        const VaultKey key = VaultKey::random();
        const QString photo = writePhoto(file("photo.jpg"), QImageIOHandler::TransformationNone, {300, 200});
        QVERIFY_THROWS_EXCEPTION(VaultError, m_store->import(photo, true));
        m_store->setVaultKey(key);
        const QString name = m_store->import(photo, true);
        const QByteArray jpeg = m_store->data(name);
        QVERIFY(jpeg.startsWith("\xff\xd8"));
        // On disk: the marker, then nothing of the JPEG in plain.
        const QByteArray onDisk = stored(name);
        QVERIFY(onDisk.startsWith("CORVANE-SEALED\n"));
        QVERIFY(!onDisk.contains(jpeg.mid(jpeg.size() / 2, 32)));
        QVERIFY(m_store->image(name));

        // Another key, or none, leaves nothing decoded behind.
        m_store->setVaultKey(VaultKey::random());
        QVERIFY(!m_store->image(name));
        m_store->setVaultKey(std::nullopt);
        QVERIFY(!m_store->image(name));
        QVERIFY_THROWS_EXCEPTION(VaultError, m_store->data(name));
        m_store->setVaultKey(key);
        QVERIFY(m_store->image(name));
        // The same key again keeps what is decoded: the file is not read again.
        QFile::remove(m_store->directory() + "/" + name);
        m_store->setVaultKey(key);
        QVERIFY(m_store->image(name));
        QCOMPARE(m_store->estimatedTokens(name), 1032);
    }

    void aPlainFileThatLooksSealedIsTreatedAsSealed()
    {
        QFile fake(m_store->directory() + "/fake.jpg");
        QVERIFY(fake.open(QIODevice::WriteOnly) && fake.write("CORVANE-SEALED\nnot a box") > 0);
        fake.close();
        QVERIFY_THROWS_EXCEPTION(VaultError, m_store->data("fake.jpg"));
        m_store->setVaultKey(VaultKey::random());
        QVERIFY_THROWS_EXCEPTION(SealedBoxError, m_store->data("fake.jpg"));
        QVERIFY(!m_store->image("fake.jpg"));
    }

    void filesFollowTheirChatsLock()
    {
        m_store->setVaultKey(VaultKey::random());
        const QString photo = writePhoto(file("photo.jpg"), QImageIOHandler::TransformationNone);
        const QString a = m_store->import(photo, false);
        const QString b = m_store->import(photo, true);
        const QByteArray plainA = stored(a);
        m_store->match({a}, {b});
        QVERIFY(stored(a).startsWith("CORVANE-SEALED\n"));
        QVERIFY(stored(b).startsWith("\xff\xd8"));
        // Back again; files already as asked are left alone.
        const QByteArray sealedA = stored(a);
        m_store->match({a}, {b});
        QCOMPARE(stored(a), sealedA);
        m_store->match({}, {a});
        QCOMPARE(stored(a), plainA);
        // A message whose picture file is gone does not keep the others from their lock.
        m_store->match({"gone.jpg", a}, {"gone-too.jpg"});
        QVERIFY(stored(a).startsWith("CORVANE-SEALED\n"));
    }

    void pruneKeepsWhatMessagesName()
    {
        const QString photo = writePhoto(file("photo.jpg"), QImageIOHandler::TransformationNone);
        const QString kept = m_store->import(photo, false);
        const QString dropped = m_store->import(photo, false);
        m_store->prune({kept});
        QCOMPARE(QDir(m_store->directory()).entryList(QDir::Files), QStringList{kept});
        Q_UNUSED(dropped);
    }
};

QTEST_MAIN(TestImageStore)
#include "tst_image_store.moc"
