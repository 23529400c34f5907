#include "platform/input_activity.h"

#include <QCoreApplication>
#include <QEvent>

namespace {

bool isInput(QEvent::Type type)
{
    switch (type) {
    case QEvent::KeyPress:
    case QEvent::KeyRelease:
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonRelease:
    case QEvent::MouseButtonDblClick:
    case QEvent::MouseMove:
    case QEvent::Wheel:
    case QEvent::TouchBegin:
    case QEvent::TouchUpdate:
    case QEvent::TouchEnd:
    case QEvent::TabletPress:
    case QEvent::TabletMove:
    case QEvent::TabletRelease:
        return true;
    default:
        return false;
    }
}

} // namespace

InputActivity::InputActivity(QObject *parent)
    : QObject(parent)
{
    m_sinceInput.start();
    QCoreApplication::instance()->installEventFilter(this);
}

InputActivity::~InputActivity()
{
    if (QCoreApplication *application = QCoreApplication::instance())
        application->removeEventFilter(this);
}

std::chrono::milliseconds InputActivity::sinceLastInput() const
{
    return std::chrono::milliseconds(m_sinceInput.elapsed());
}

bool InputActivity::eventFilter(QObject *watched, QEvent *event)
{
    // The window system delivers input to a window first, as a spontaneous event; what the
    // window then passes on to its items, or what the program sends itself, is not the user.
    if (event->spontaneous() && watched->isWindowType() && isInput(event->type()))
        m_sinceInput.restart();
    return false;
}
