#include "platform/x11_idle.h"

#include "platform/auto_lock.h"

#include <QLibrary>

namespace {

// Xlib's types, spelt out here so that no X11 header is needed to build.
using Display = void;
using XID = unsigned long;

// XScreenSaverInfo from <X11/extensions/scrnsaver.h>; the layout has not changed since 1992.
struct ScreenSaverInfo
{
    XID window;
    int state;
    int kind;
    unsigned long tilOrSince;
    unsigned long idle; // milliseconds
    unsigned long eventMask;
};

} // namespace

struct X11Idle::Api
{
    QLibrary x11{QStringLiteral("X11"), 6};
    QLibrary xss{QStringLiteral("Xss"), 1};
    Display *display = nullptr;
    XID root = 0;
    int (*closeDisplay)(Display *) = nullptr;
    int (*queryInfo)(Display *, XID, ScreenSaverInfo *) = nullptr;

    ~Api()
    {
        if (display)
            closeDisplay(display);
    }
};

X11Idle::X11Idle() = default;
X11Idle::~X11Idle() = default;

std::optional<std::chrono::milliseconds> X11Idle::idleTime()
{
    const std::lock_guard lock(m_mutex);
    if (!m_tried) {
        m_tried = true;
        if (!open())
            m_api.reset();
    }
    if (!m_api)
        return std::nullopt;
    ScreenSaverInfo info = {};
    if (!m_api->queryInfo(m_api->display, m_api->root, &info))
        return std::nullopt;
    return std::chrono::milliseconds(info.idle);
}

bool X11Idle::open()
{
    m_api = std::make_unique<Api>();
    Api &api = *m_api;
    // A connection of our own, not Qt's: it is used from a worker thread, and Xlib's displays
    // are not shared between threads unless XInitThreads ran before anything else.
    const auto openDisplay = reinterpret_cast<Display *(*)(const char *)>(api.x11.resolve("XOpenDisplay"));
    const auto defaultRoot = reinterpret_cast<XID (*)(Display *)>(api.x11.resolve("XDefaultRootWindow"));
    api.closeDisplay = reinterpret_cast<int (*)(Display *)>(api.x11.resolve("XCloseDisplay"));
    const auto queryExtension = reinterpret_cast<int (*)(Display *, int *, int *)>(
        api.xss.resolve("XScreenSaverQueryExtension"));
    api.queryInfo = reinterpret_cast<int (*)(Display *, XID, ScreenSaverInfo *)>(
        api.xss.resolve("XScreenSaverQueryInfo"));
    if (!openDisplay || !defaultRoot || !api.closeDisplay || !queryExtension || !api.queryInfo) {
        qCDebug(lcAutoLock) << "no X11 idle time:" << api.x11.errorString() << api.xss.errorString();
        return false;
    }
    api.display = openDisplay(nullptr);
    if (!api.display) {
        qCDebug(lcAutoLock) << "no X11 idle time: the display could not be opened";
        return false;
    }
    int eventBase = 0;
    int errorBase = 0;
    if (!queryExtension(api.display, &eventBase, &errorBase)) {
        qCDebug(lcAutoLock) << "no X11 idle time: the server lacks the screen-saver extension";
        return false;
    }
    api.root = defaultRoot(api.display);
    return true;
}
