#include "common/quit.h"

#include <QCoreApplication>
#include <QPointer>

#include <atomic>
#include <memory>

namespace ruvo {

namespace {

/// The application that is quitting. Service thread only.
QPointer<QCoreApplication> s_quitting;

std::atomic<int> s_pending = 0;

/// A request on its way to the service thread. It goes with the posted call, whether that was made or not.
class PendingRequest
{
public:
    PendingRequest() { ++s_pending; }
    ~PendingRequest() { --s_pending; }
    PendingRequest(const PendingRequest &) = delete;
    PendingRequest &operator=(const PendingRequest &) = delete;
};

bool isQuitting()
{
    return s_quitting && s_quitting == qApp;
}

} // namespace

void requestQuit()
{
    QMetaObject::invokeMethod(
        qApp,
        [request = std::make_shared<PendingRequest>()] {
            if (isQuitting())
                return;
            s_quitting = qApp;
            QCoreApplication::quit();
        },
        Qt::QueuedConnection);
}

bool quitRequested()
{
    return s_pending > 0 || isQuitting();
}

} // namespace ruvo
