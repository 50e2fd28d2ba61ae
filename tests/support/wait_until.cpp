#include "support/wait_until.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>

namespace ruvo::test {

bool waitUntil(const std::function<bool()> &condition, std::chrono::milliseconds timeout)
{
    constexpr int sliceMs = 10;
    const QDeadlineTimer deadline(timeout);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, sliceMs);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}

void processPending()
{
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

} // namespace ruvo::test
