#include "common/quit.h"

#include <QCoreApplication>
#include <QPointer>

namespace ruvo {

namespace {

/// The application that is quitting. Service thread only.
QPointer<QCoreApplication> s_quitting;

} // namespace

void requestQuit()
{
    QMetaObject::invokeMethod(qApp, [] {
        if (quitRequested())
            return;
        s_quitting = qApp;
        QCoreApplication::quit();
    }, Qt::QueuedConnection);
}

bool quitRequested()
{
    return s_quitting && s_quitting == qApp;
}

} // namespace ruvo
