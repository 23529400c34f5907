#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>

/// The X server's idle time, from the MIT screen-saver extension. libX11 and libXss are loaded
/// when first needed, so that Corvane neither builds nor starts against them; their absence,
/// like a server without the extension, only means there is no answer here.
class X11Idle
{
public:
    X11Idle();
    ~X11Idle();
    X11Idle(const X11Idle &) = delete;
    X11Idle &operator=(const X11Idle &) = delete;

    /// Milliseconds since the last input to any program on the display, or nothing. The first
    /// call loads the libraries and opens the display; every call is a round trip to the X
    /// server, so call it off the UI thread. Safe to call from any one thread at a time or
    /// several; calls are serialised.
    std::optional<std::chrono::milliseconds> idleTime();

private:
    struct Api;
    bool open();

    std::mutex m_mutex;
    std::unique_ptr<Api> m_api;
    bool m_tried = false;
};
