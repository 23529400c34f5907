#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QTimer>

#include <chrono>
#include <memory>

class InputActivity;
class X11Idle;

/// Reports when the user has been away from keyboard and mouse for a given time. It asks every
/// poll interval, without blocking, and takes the first of these that answers:
///
/// 1. `org.freedesktop.ScreenSaver.GetSessionIdleTime` on the session bus, in milliseconds:
///    KDE answers with KIdleTime's count, which is milliseconds (on Wayland it refuses, and the
///    next source is asked);
/// 2. Mutter's `org.gnome.Mutter.IdleMonitor.GetIdletime` (GNOME), milliseconds;
/// 3. the X server's screen-saver extension, when the application runs on X11 (xcb);
/// 4. the time since the last input to this application's own windows.
///
/// The order is asked afresh each time, so a desktop service that starts or stops is followed.
class IdleClock : public QObject
{
    Q_OBJECT
public:
    IdleClock(const QDBusConnection &session, std::chrono::milliseconds limit,
              std::chrono::milliseconds pollInterval, QObject *parent = nullptr);
    ~IdleClock() override;

    /// Stopped, the clock asks nobody anything; an answer still on its way is ignored.
    void setRunning(bool running);
    bool isRunning() const { return m_timer.isActive(); }

Q_SIGNALS:
    /// Once for each stretch of idleness that reaches the limit while the clock runs.
    void limitReached();

private:
    enum class Source { None, ScreenSaver, Mutter, X11, OwnWindows };

    void poll();
    void askScreenSaver();
    void askMutter();
    void askX11();
    void askOwnWindows();
    void measured(std::chrono::milliseconds idle, Source source);

    QDBusConnection m_session;
    std::chrono::milliseconds m_limit;
    QTimer m_timer;
    InputActivity *m_input = nullptr;
    std::shared_ptr<X11Idle> m_x11;
    // Bumped on every start and stop, so that an answer to an older question is recognised.
    quint64 m_round = 0;
    bool m_asking = false;
    bool m_reported = false;
    Source m_source = Source::None;
};
