#include "common/quit.h"

#include <QCoreApplication>
#include <QPointer>

#include <atomic>
#include <memory>
#include <utility>

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
    requestQuitAndThen([] {});
}

void requestQuitAndThen(std::function<void()> afterwards)
{
    QMetaObject::invokeMethod(
        qApp,
        [request = std::make_shared<PendingRequest>(), afterwards = std::move(afterwards)] {
            if (!isQuitting()) {
                s_quitting = qApp;
                QCoreApplication::quit();
            }
            afterwards();
        },
        Qt::QueuedConnection);
}

bool quitRequested()
{
    return s_pending > 0 || isQuitting();
}

} // namespace ruvo
