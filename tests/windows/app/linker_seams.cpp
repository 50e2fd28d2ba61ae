#include "windows/app/linker_seams.h"

#include "daemon/ruvo_daemon.h"
#include "ipc/communication_server.h"

#include <QThread>

namespace ruvo {

// The names are those that the compiler gives to the members; "__real_" leads to the members themselves.

bool realStart(CommunicationServer *server,
               const QString &name) asm("__real__ZN4ruvo19CommunicationServer5startERK7QString");
bool wrappedStart(CommunicationServer *server,
                  const QString &name) asm("__wrap__ZN4ruvo19CommunicationServer5startERK7QString");

void realBroadcast(RuvoDaemon *daemon) asm("__real__ZN4ruvo10RuvoDaemon23broadcastClientShutdownEv");
void wrappedBroadcast(RuvoDaemon *daemon) asm("__wrap__ZN4ruvo10RuvoDaemon23broadcastClientShutdownEv");

void realDestruction(RuvoDaemon *daemon) asm("__real__ZN4ruvo10RuvoDaemonD1Ev");
void wrappedDestruction(RuvoDaemon *daemon) asm("__wrap__ZN4ruvo10RuvoDaemonD1Ev");

bool wrappedStart(CommunicationServer *server, const QString &name)
{
    const auto &hook = test::linkerSeams().communicationServerStart;
    return hook ? hook() : realStart(server, name);
}

void wrappedBroadcast(RuvoDaemon *daemon)
{
    if (const auto &hook = test::linkerSeams().beforeBroadcast)
        hook(daemon->thread() == QThread::currentThread());
    realBroadcast(daemon);
}

void wrappedDestruction(RuvoDaemon *daemon)
{
    if (const auto &hook = test::linkerSeams().beforeDaemonDestruction)
        hook();
    realDestruction(daemon);
    if (const auto &hook = test::linkerSeams().afterDaemonDestruction)
        hook();
}

namespace test {

LinkerSeams &linkerSeams()
{
    static LinkerSeams s_seams;
    return s_seams;
}

} // namespace test

} // namespace ruvo
