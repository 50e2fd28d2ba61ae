#include "common/quit.h"

#include <QCoreApplication>
#include <QPointer>

namespace ruvo {

void requestQuit()
{
    QMetaObject::invokeMethod(qApp, [] {
        static QPointer<QCoreApplication> s_quitting;
        if (s_quitting == qApp)
            return;
        s_quitting = qApp;
        QCoreApplication::quit();
    }, Qt::QueuedConnection);
}

} // namespace ruvo
