// The scripts folder: file names, listing, the file rules, creating, importing without
// duplicates, renaming, trashing and the first start.
#include "scripts/cartridge_error.h"
#include "scripts/cartridge_library.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {

void write(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(bytes), bytes.size());
}

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

QStringList names(const QList<CartridgeFile> &files)
{
    QStringList result;
    for (const CartridgeFile &file : files)
        result << file.name();
    return result;
}

} // namespace

class TestCartridgeLibrary : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<CartridgeLibrary> m_library;

    QString path(const QString &name) const { return m_dir->filePath(name); }

private Q_SLOTS:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        // The trash of this test's own home.
        QVERIFY(QDir(m_dir->path()).mkpath("home"));
        qputenv("XDG_DATA_HOME", m_dir->filePath("home").toUtf8());
        m_library = std::make_unique<CartridgeLibrary>(m_dir->path());
    }

    void aFirstStartBringsTheExampleOnce()
    {
        QCOMPARE(names(m_library->files()), QStringList({"Example Script"}));
        QFile::remove(m_library->directory() + "/Example Script.corvane");
        CartridgeLibrary again(m_dir->path());
        QCOMPARE(names(again.files()), QStringList());

        // An earlier version's folder is carried over as it is.
        QTemporaryDir earlier;
        QVERIFY(QDir(earlier.path()).mkpath("Cartridges"));
        write(earlier.filePath("Cartridges/Mine.corvane"), "module.exports = {};");
        CartridgeLibrary moved(earlier.path());
        QCOMPARE(names(moved.files()), QStringList({"Example Script", "Mine"}));
        QVERIFY(!QFileInfo::exists(earlier.filePath("Cartridges")));
    }

    void fileBase_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("expected");
        QTest::newRow("kept as it is") << "My script_2-b" << "My script_2-b";
        QTest::newRow("question marks") << "???" << "---";
        QTest::newRow("path separators") << "a/b:c" << "a-b-c";
        QTest::newRow("only spaces") << "   " << "Script";
        QTest::newRow("letters of any script") << " Café 日記 " << "Café 日記";
        QTest::newRow("long") << QString(200, 'x') << QString(70, 'x');
    }

    void fileBase()
    {
        QFETCH(QString, name);
        QFETCH(QString, expected);
        QCOMPARE(CartridgeLibrary::fileBase(name), expected);
    }

    void createdScriptsAreNumberedAndNamed()
    {
        for (int i = 0; i < 3; ++i)
            m_library->create("Notes");
        QCOMPARE(names(m_library->files()), QStringList({"Example Script", "Notes", "Notes 2", "Notes 3"}));
        QVERIFY(contents(m_library->directory() + "/Notes 3.corvane").startsWith("module.exports = {\n  name: \"Notes 3\",\n"));
    }

    void listingKeepsToScriptsInNaturalOrder()
    {
        const QString dir = m_library->directory();
        for (const char *file : {"Script 10.corvane", "Script 2.corvane", "b.corvane", "A.corvane", ".hidden.corvane",
                                 "module.corvane.js", "notes.txt"})
            write(dir + "/" + file, "module.exports = {};");
        QVERIFY(QDir(dir).mkpath("folder.corvane"));
        QCOMPARE(names(m_library->files()), QStringList({"A", "b", "Example Script", "Script 2", "Script 10"}));
    }

    void fileRules_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("exactly the largest size") << "a.corvane" << QByteArray(CartridgeLibrary::maxFileBytes, 'x') << true;
        QTest::newRow("one byte more") << "a.corvane" << QByteArray(CartridgeLibrary::maxFileBytes + 1, 'x') << false;
        QTest::newRow("a module file") << "a.corvane.js" << QByteArray("x") << true;
        QTest::newRow("plain JavaScript") << "a.js" << QByteArray("x") << false;
        QTest::newRow("not UTF-8") << "a.corvane" << QByteArray("caf\xe9") << false;
        QTest::newRow("empty") << "a.corvane" << QByteArray() << true;
    }

    void fileRules()
    {
        QFETCH(QString, name);
        QFETCH(QByteArray, bytes);
        QFETCH(bool, accepted);
        write(path(name), bytes);
        try {
            QCOMPARE(CartridgeLibrary::read(path(name)).toUtf8(), bytes);
            QVERIFY(accepted);
        } catch (const CartridgeError &error) {
            QVERIFY(!accepted);
            QCOMPARE(error.description(), "The script must be a UTF-8 .corvane or .corvane.js file under 128 KB.");
        }
    }

    void importingTheSameTextKeepsOneFile()
    {
        const QByteArray source = "module.exports = { name: \"Tidy\" };";
        write(path("one.corvane"), source);
        write(path("two.corvane.js"), source);
        const CartridgeFile first = m_library->saveImported(source, "Tidy", path("one.corvane"));
        QCOMPARE(m_library->saveImported(source, "Tidy", path("two.corvane.js")), first);
        // A file picked from the library itself is that file, whatever its text.
        const CartridgeFile example{m_library->directory() + "/Example Script.corvane"};
        QCOMPARE(m_library->saveImported("other text", "Other", example.path), example);
        QCOMPARE(names(m_library->files()), QStringList({"Example Script", "Tidy"}));
    }

    void rename_data()
    {
        QTest::addColumn<QByteArray>("source");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("file");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("another name") << QByteArray("x = { name: \"Old\", a: 1 }") << "New" << "New" << QByteArray("x = { name: \"New\", a: 1 }");
        QTest::newRow("single quotes, the first name only") << QByteArray("x = { name : 'Old', y: { name: 'z' } }") << "New" << "New"
                                                            << QByteArray("x = { name : 'New', y: { name: 'z' } }");
        QTest::newRow("same file name, the literal still set") << QByteArray("x = { name: \"Other\" }") << "Old" << "Old" << QByteArray("x = { name: \"Old\" }");
        QTest::newRow("no name in it") << QByteArray("x = {}") << "New" << "New" << QByteArray("x = {}");
        QTest::newRow("a name made safe") << QByteArray("x = { name: \"Old\" }") << "N/W?" << "N-W-" << QByteArray("x = { name: \"N-W-\" }");
    }

    void rename()
    {
        QFETCH(QByteArray, source);
        QFETCH(QString, name);
        QFETCH(QString, file);
        QFETCH(QByteArray, expected);
        const CartridgeFile old{m_library->directory() + "/Old.corvane"};
        write(old.path, source);
        const CartridgeFile renamed = m_library->rename(old, name);
        QCOMPARE(renamed.name(), file);
        QCOMPARE(QFileInfo::exists(old.path), file == "Old");
        QCOMPARE(contents(renamed.path), expected);
    }

    void deletingMovesToTheTrash()
    {
        const CartridgeFile file = m_library->create("Doomed");
        m_library->remove(file);
        QCOMPARE(names(m_library->files()), QStringList({"Example Script"}));
        QVERIFY(QFileInfo::exists(m_dir->filePath("home/Trash/files/Doomed.corvane")));
    }
};

QTEST_GUILESS_MAIN(TestCartridgeLibrary)
#include "tst_cartridge_library.moc"
