#include "ipc/half_open_server.h"

// Private, because no public call reaches what a server holds that does not listen. Belongs to the one version of
// Qt that this program is linked with statically.
#include <private/qlocalserver_p.h>

namespace ruvo {

void closeHalfOpenServer(QLocalServer &server)
{
    static_cast<QLocalServerPrivate *>(QObjectPrivate::get(&server))->closeServer();
}

} // namespace ruvo
