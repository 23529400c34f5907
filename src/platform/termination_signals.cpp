#include "platform/termination_signals.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The handler may only do async-signal-safe work: it writes the signal number into a
// socket whose other end the event loop watches.
int s_fds[2] = {-1, -1};
constexpr int s_signals[] = {SIGTERM, SIGINT, SIGHUP};

void onSignal(int signalNumber)
{
    const unsigned char byte = static_cast<unsigned char>(signalNumber);
    [[maybe_unused]] const ssize_t written = ::write(s_fds[0], &byte, 1);
}

} // namespace

TerminationSignals::TerminationSignals(QObject *parent)
    : QObject(parent)
{
    Q_ASSERT(s_fds[0] == -1);
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, s_fds) != 0)
        return;
    m_notifier = new QSocketNotifier(s_fds[1], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &TerminationSignals::handle);
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signalNumber : s_signals)
        ::sigaction(signalNumber, &action, nullptr);
}

TerminationSignals::~TerminationSignals()
{
    if (s_fds[0] == -1)
        return;
    for (int signalNumber : s_signals)
        ::signal(signalNumber, SIG_DFL);
    delete m_notifier;
    ::close(s_fds[0]);
    ::close(s_fds[1]);
    s_fds[0] = s_fds[1] = -1;
}

void TerminationSignals::handle()
{
    unsigned char byte = 0;
    if (::read(s_fds[1], &byte, 1) != 1)
        return;
    Q_EMIT received(byte);
    QCoreApplication::quit();
}
