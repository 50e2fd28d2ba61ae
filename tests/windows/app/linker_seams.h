#pragma once

#include <functional>

namespace ruvo::test {

/// Functions of the daemon that Windows gives no means to influence from outside: the linker leads their
/// callers through here (--wrap in CMakeLists.txt). Without a hook nothing changes.
struct LinkerSeams
{
    /// In place of CommunicationServer::start, which cannot fail by itself.
    std::function<bool()> communicationServerStart;
    /// Before RuvoDaemon::broadcastClientShutdown: whether it runs on the daemon's own thread.
    std::function<void(bool onItsThread)> beforeBroadcast;
    /// Around the destruction of RuvoDaemon, on the service thread.
    std::function<void()> beforeDaemonDestruction;
    std::function<void()> afterDaemonDestruction;
};
LinkerSeams &linkerSeams();

} // namespace ruvo::test
