// The scripts pane as the user meets it: a script made from the template, edited and checked
// as one types, renamed, used for a folder, and moved to the trash. Scripts run in the real
// runner. Pictures go to build/test-output/.
#include "window_test_support.h"

#include <QFile>
#include <QQmlExtensionPlugin>

Q_IMPORT_QML_PLUGIN(CorvanePlugin)

class TestScriptsWindow : public WindowTest
{
    Q_OBJECT

private:
    qint64 m_work = -1;

    ScriptLibrary &scripts() { return *m_model->scripts(); }
    bool shown(const QString &name) { return object(name) && object(name)->property("visible").toBool(); }
    QByteArray file() const
    {
        QFile script(m_model->scripts()->selectedPath());
        return script.open(QIODevice::ReadOnly) ? script.readAll() : QByteArray();
    }

private Q_SLOTS:
    void initTestCase()
    {
        // The trash of this test's own home.
        const QString home = m_data.filePath("home");
        QVERIFY(QDir().mkpath(home));
        qputenv("XDG_DATA_HOME", home.toUtf8());
        useScratchData();
        m_model = std::make_unique<AppModel>();
        m_work = m_model->tree()->addFolder(-1);
        m_model->tree()->renameNode(m_work, "Work");
        showWindow();
        m_window->setProperty("skippedSetup", true);
        QTRY_VERIFY(findItem(m_window, "scriptsButton"));
    }

    void aNewScriptFromTheTemplate()
    {
        QTest::keySequence(m_window, QKeySequence("Ctrl+Shift+S"));
        QTRY_VERIFY(shown("scriptsPane"));
        QCOMPARE(findItem(m_window, "scriptList")->property("count").toInt(), 1); // the example
        click("newScriptButton");
        QTRY_VERIFY(object("newScriptDialog")->property("opened").toBool());
        QTest::keySequence(m_window, QKeySequence::SelectAll);
        type("Tidy");
        QTest::keyClick(m_window, Qt::Key_Return);
        QTRY_COMPARE(scripts().selectedName(), "Tidy");
        QTRY_COMPARE(textOf("scriptCheck"), "No problems found");
        QVERIFY(textOf("scriptEditor").contains("name: \"Tidy\""));
        savePicture("scripts-pane.png");
        // The chat behind the pane is not read out.
        QAccessible::setActive(true);
        QCOMPARE(hiddenAccessibleItems(m_window), QStringList());
    }

    void editsAreSavedAndChecked()
    {
        QQuickItem *editor = findItem(m_window, "scriptEditor");
        editor->forceActiveFocus();
        // A turn that gives no prompt is a problem the pane names.
        editor->setProperty("text", "module.exports = { name: \"Tidy\", prompt: () => \"\" };");
        QTRY_COMPARE(textOf("scriptCheck"), "Script: Prompt is empty");
        QCOMPARE(file(), QByteArray("module.exports = { name: \"Tidy\", prompt: () => \"\" };"));
        editor->setProperty("text", "module.exports = {\n  name: \"Tidy\",\n  prompt: () => \"Be tidy.\",\n};\n");
        QTRY_COMPARE(textOf("scriptCheck"), "No problems found");
        QVERIFY(file().contains("Be tidy."));

        // Leaving the pane at once keeps what was just typed; it is all there on return.
        const QByteArray typed = "module.exports = {\n  name: \"Tidy\",\n  prompt: () => \"Be tidy. Be brief.\",\n};\n";
        editor->setProperty("text", QString::fromUtf8(typed));
        QTest::keyClick(m_window, Qt::Key_Escape);
        QTRY_VERIFY(!shown("scriptsPane"));
        QTRY_COMPARE(file(), typed);
        QTest::keySequence(m_window, QKeySequence("Ctrl+Shift+S"));
        QTRY_VERIFY(shown("scriptsPane"));
        QCOMPARE(textOf("scriptEditor"), QString::fromUtf8(typed));
    }

    void renamingRewritesTheName()
    {
        QQuickItem *name = findItem(m_window, "scriptNameField");
        name->forceActiveFocus();
        name->setProperty("text", "Neat");
        QMetaObject::invokeMethod(name, "editingFinished");
        QTRY_COMPARE(scripts().selectedName(), "Neat");
        QVERIFY(file().contains("name: \"Neat\""));
        QVERIFY(textOf("scriptEditor").contains("name: \"Neat\""));
    }

    void usedForAFolder()
    {
        m_model->tree()->selectNode(m_work);
        QTRY_VERIFY(shown("scriptForFolderButton"));
        click("scriptForFolderButton");
        QTRY_COMPARE(m_model->tree()->folderDetails(m_work).value("cartridgeName").toString(), "Neat");
        QCOMPARE(m_model->status()->text(), "Script set for Work");
        // A chat in it runs the folder's script.
        m_model->tree()->addChat(m_work);
        const auto chat = m_model->tree()->selectedChat();
        QVERIFY(chat);
        QVERIFY(m_model->tree()->cartridgeSource(*chat).contains("Be tidy."));

        // The folder's sheet names it and offers to remove it.
        QMetaObject::invokeMethod(object("sidebar"), "openSettings", Q_ARG(QString, "folder"), Q_ARG(double, double(m_work)));
        QTRY_VERIFY(object("folderSettingsSheet")->property("opened").toBool());
        QCOMPARE(textOf("folderScriptName"), "Neat");
        QVERIFY(shown("folderRemoveScript"));
        savePicture("folder-settings-script.png");
        closePopup("folderSettingsSheet");
    }

    void deletedToTheTrash()
    {
        QTest::keySequence(m_window, QKeySequence("Ctrl+Shift+S"));
        QTRY_VERIFY(shown("scriptsPane"));
        scripts().select(scripts().files().last().toMap().value("path").toString());
        QTRY_COMPARE(scripts().selectedName(), "Neat");
        click("deleteScriptButton");
        QTRY_VERIFY(object("deleteScriptDialog")->property("opened").toBool());
        click("deleteScriptDialogAccept");
        QTRY_COMPARE(scripts().files().size(), 1);
        QVERIFY(QFile::exists(m_data.filePath("home/Trash/files/Neat.corvane")));
        // The folder keeps its copy.
        QCOMPARE(m_model->tree()->folderDetails(m_work).value("cartridgeName").toString(), "Neat");
    }
};

QTEST_MAIN(TestScriptsWindow)
#include "tst_scripts_window.moc"
