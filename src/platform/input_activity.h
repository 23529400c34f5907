#pragma once

#include <QElapsedTimer>
#include <QObject>

#include <chrono>

/// The time since the user last used keyboard, mouse, wheel, touch screen or tablet on one of
/// this application's windows. The last resort for idle time where the desktop does not tell:
/// input to other programs goes unseen, so it can only make folders lock sooner, never later.
class InputActivity : public QObject
{
    Q_OBJECT
public:
    /// Watches every window of the running QGuiApplication from now on; starting counts as input.
    explicit InputActivity(QObject *parent = nullptr);
    ~InputActivity() override;

    std::chrono::milliseconds sinceLastInput() const;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    QElapsedTimer m_sinceInput;
};
