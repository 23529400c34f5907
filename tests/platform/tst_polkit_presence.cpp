// Asking polkit whether the user is there: against a stand-in authority on a private bus that
// plays the system bus, as the application finds it, and with no polkit and no bus at all.
#include "platform/polkit_presence.h"
#include "support/await_task.h"
#include "support/fake_polkit.h"
#include "support/private_bus.h"

#include <QDBusConnection>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

namespace {

const QString s_action = QStringLiteral(CORVANE_APP_ID ".unlock");
const QString s_polkitConnection = QStringLiteral("polkit");
const QString s_noBusConnection = QStringLiteral("no-bus");

/// Where the question goes: the stand-in polkit, a bus where nothing answers for polkit, no bus.
enum class Bus { Polkit, NoPolkit, None };
enum class Outcome { Confirmed, Declined, Fails };

} // namespace

Q_DECLARE_METATYPE(Bus)
Q_DECLARE_METATYPE(FakePolkit::Answer)
Q_DECLARE_METATYPE(Outcome)

class TestPolkitPresence : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    PrivateBus m_bus;

    std::unique_ptr<FakePolkit> startPolkit(FakePolkit::Answer answer)
    {
        auto polkit = std::make_unique<FakePolkit>(QDBusConnection(s_polkitConnection));
        polkit->setAnswer(answer);
        return polkit->start() ? std::move(polkit) : nullptr;
    }

    /// What confirm() ended with.
    static Outcome ending(QCoro::Task<bool> confirming)
    {
        try {
            return awaitTask(std::move(confirming)) ? Outcome::Confirmed : Outcome::Declined;
        } catch (const PolkitError &) {
            return Outcome::Fails;
        }
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        const QString address = m_bus.start();
        QVERIFY(!address.isEmpty());
        // Before anything asks for the system bus, which the process then keeps.
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", address.toUtf8());
        QVERIFY(QDBusConnection::connectToBus(address, s_polkitConnection).isConnected());
        // What the system bus is where its address leads nowhere.
        const QString nowhere = QStringLiteral("unix:path=") + m_dir.filePath(QStringLiteral("no-bus"));
        QVERIFY(!QDBusConnection::connectToBus(nowhere, s_noBusConnection).isConnected());
    }

    void cleanupTestCase()
    {
        QDBusConnection::disconnectFromBus(s_polkitConnection);
        QDBusConnection::disconnectFromBus(s_noBusConnection);
    }

    void availabilityAndAnswer_data()
    {
        using Answer = FakePolkit::Answer;
        QTest::addColumn<Bus>("bus");
        QTest::addColumn<Answer>("answer");
        QTest::addColumn<bool>("available");
        QTest::addColumn<Outcome>("outcome");
        QTest::newRow("the user passes") << Bus::Polkit << Answer::Yes << true << Outcome::Confirmed;
        QTest::newRow("the user fails or dismisses") << Bus::Polkit << Answer::No << true << Outcome::Declined;
        QTest::newRow("no agent to ask") << Bus::Polkit << Answer::NoAgent << true << Outcome::Fails;
        QTest::newRow("a local rule refuses") << Bus::Polkit << Answer::Forbidden << false << Outcome::Declined;
        QTest::newRow("action not installed") << Bus::Polkit << Answer::NotInstalled << false << Outcome::Fails;
        QTest::newRow("no polkit on the bus") << Bus::NoPolkit << Answer::Yes << false << Outcome::Fails;
        QTest::newRow("no system bus") << Bus::None << Answer::Yes << false << Outcome::Fails;
    }

    void availabilityAndAnswer()
    {
        QFETCH(Bus, bus);
        QFETCH(FakePolkit::Answer, answer);
        QFETCH(bool, available);
        QFETCH(Outcome, outcome);

        std::unique_ptr<FakePolkit> polkit;
        if (bus == Bus::Polkit) {
            polkit = startPolkit(answer);
            QVERIFY(polkit);
        }
        PolkitPresence presence = bus == Bus::None ? PolkitPresence(QDBusConnection(s_noBusConnection))
                                                   : PolkitPresence();

        QCOMPARE(awaitTask(presence.isAvailable()), available);
        QCOMPARE(ending(presence.confirm()), outcome);

        if (!polkit)
            return;
        // Both asked about our action for ourselves, by our name on the bus; only the
        // confirmation may show a dialog.
        const QList<FakePolkit::Check> checks = polkit->checks();
        QCOMPARE(checks.size(), 2);
        for (const FakePolkit::Check &check : checks) {
            QCOMPARE(check.actionId, s_action);
            QCOMPARE(check.subjectKind, QStringLiteral("system-bus-name"));
            QCOMPARE(check.subject.value(QStringLiteral("name")).toString(), check.sender);
        }
        QCOMPARE(checks[0].flags, 0u);
        QCOMPARE(checks[1].flags, FakePolkit::allowUserInteraction);
        QVERIFY(!checks[1].cancellationId.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestPolkitPresence)
#include "tst_polkit_presence.moc"
