// Bounded waiting for tests: serves the event loop of this thread until a
// condition holds or the time is up.
#ifndef XBC_E2E_EVENT_WAIT_H
#define XBC_E2E_EVENT_WAIT_H

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <functional>

inline bool waitUntil(const std::function<bool()> &condition, int maxMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() >= maxMs)
            return false;
        QEventLoop loop;
        QTimer::singleShot(5, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return true;
}

#endif
