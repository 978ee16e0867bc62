#include "wait.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

namespace xbctest {

bool waitUntil(const std::function<bool()> &condition, int maxMs)
{
    enum { SLICE_MS = 5 };
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() >= maxMs)
            return false;
        QEventLoop loop;
        QTimer::singleShot(SLICE_MS, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return true;
}

} // namespace xbctest
