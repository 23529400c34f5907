// How a message's Markdown is split into prose and code boxes, including the half-written
// fences of a reply that is still streaming.
#include "markdown_blocks.h"

#include <QTest>

using Block = MarkdownBlocks::Block;
Q_DECLARE_METATYPE(QList<MarkdownBlocks::Block>)

namespace {

Block prose(const QString &text)
{
    return {false, text, {}};
}

Block code(const QString &text, const QString &language = {})
{
    return {true, text, language};
}

} // namespace

class TestMarkdownBlocks : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void blocks_data()
    {
        QTest::addColumn<QString>("markdown");
        QTest::addColumn<QList<Block>>("expected");
        QTest::newRow("prose only") << "One **bold**\n\nTwo" << QList<Block>{prose("One **bold**\n\nTwo")};
        QTest::newRow("code between prose, blank lines dropped")
            << "Look:\n\n```python\nprint(1)\n\nprint(2)\n```\n\nDone."
            << QList<Block>{prose("Look:"), code("print(1)\n\nprint(2)", "python"), prose("Done.")};
        QTest::newRow("language word only, lower case") << "```C++ {.numberLines}\nint x;\n```"
                                                        << QList<Block>{code("int x;", "c++")};
        QTest::newRow("a longer tilde fence closes") << "~~~\na\n~~~~\nb" << QList<Block>{code("a"), prose("b")};
        QTest::newRow("the other fence character does not close")
            << "```\na\n~~~\n```" << QList<Block>{code("a\n~~~")};
        QTest::newRow("a shorter fence does not close") << "````\n```\n````" << QList<Block>{code("```")};
        QTest::newRow("text after a fence does not close") << "```\na\n``` b\n```" << QList<Block>{code("a\n``` b")};
        QTest::newRow("empty block") << "```\n```" << QList<Block>{code("")};
        QTest::newRow("streaming: open fence runs to the end") << "Here:\n```js\nlet a" << QList<Block>{prose("Here:"), code("let a", "js")};
        QTest::newRow("streaming: fence line being written") << "Here:\n```py" << QList<Block>{prose("Here:"), code("", "py")};
        QTest::newRow("indented four spaces: prose") << "    ```\n    a\n    ```" << QList<Block>{prose("    ```\n    a\n    ```")};
        QTest::newRow("backticks inside a line: prose") << "Use ```x``` here" << QList<Block>{prose("Use ```x``` here")};
        QTest::newRow("empty") << "" << QList<Block>{};
    }

    void blocks()
    {
        QFETCH(QString, markdown);
        QFETCH(QList<Block>, expected);
        const QList<Block> actual = MarkdownBlocks::blocks(markdown);
        QCOMPARE(actual.size(), expected.size());
        for (qsizetype i = 0; i < actual.size(); ++i) {
            QCOMPARE(actual[i].isCode, expected[i].isCode);
            QCOMPARE(actual[i].text, expected[i].text);
            QCOMPARE(actual[i].language, expected[i].language);
        }
    }
};

QTEST_GUILESS_MAIN(TestMarkdownBlocks)
#include "tst_markdown_blocks.moc"
