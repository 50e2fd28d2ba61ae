#include "tun/tunnel.h"

#include "common/log_category.h"
#include "common/steady_clock.h"
#include "tun/worker_count.h"

#include <new>
#include <utility>

namespace ruvo {

namespace {

using namespace std::chrono_literals;

constexpr auto workerWait = 250ms;
constexpr auto drainTimeout = 2000ms;

} // namespace

Tunnel::Tunnel(TunnelSettings settings)
    : m_settings(std::move(settings)), m_stopEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr))
{
    m_upstreamChoice.setPorts(m_settings.proxyPort, m_settings.directPort);
    for (const std::uint32_t address : m_settings.bypassIps)
        addBypassIp(address);
    for (const std::wstring &name : m_settings.proxyProcesses)
        addProxyProcess(name);
    for (const std::wstring &name : m_settings.directProcesses)
        addDirectProcess(name);
    for (const std::wstring &name : m_settings.alwaysDirectProcesses)
        m_upstreamChoice.addAlwaysDirectProcess(name);
}

Tunnel::~Tunnel()
{
    stop();
}

void Tunnel::setHealthCheckFailedCallback(std::function<void()> callback)
{
    m_healthCheckFailed = std::move(callback);
}

bool Tunnel::isRunning() const
{
    return m_running && m_adapter && m_adapter->isReading();
}

void Tunnel::stop()
{
    if (!m_running.exchange(false))
        return;
    SetEvent(m_stopEvent.get());
    if (m_natListener)
        m_natListener->stopAccepting();
    if (m_relayConnector)
        m_relayConnector->stopConnecting();
    m_proxyGate.open(); // nobody waits for that any more
    joinThreads();
    closePaths();
    if (!m_completionPort.drain(drainTimeout)) {
        qCWarning(lcRuvod) << "[RUVO-TUN] Operations still in flight at the stop:" << m_completionPort.inFlight();
    }
    // What is still in flight is never handled once the port is closed: it holds its own memory, but refers to what
    // goes from here on.
    m_completionPort.close();
    m_firewall.reset(); // removes the filters
    m_adapter->stopReading();
    m_adapter->endSession();
    m_adapter.reset();
    m_dispatcher.reset();
    m_udpNatRelay.reset();
    m_udpFlows.reset();
    m_tcpEngine.reset();
    m_relayConnector.reset();
    m_natListener.reset();
    m_proxyCheck.reset();
    m_proxyHealth.reset();
    qCDebug(lcRuvod) << "Tunnel stopped";
}

void Tunnel::joinThreads()
{
    joinProxyReadyThread();
    if (m_flowControlThread.joinable())
        m_flowControlThread.join();
    for (std::size_t i = 0; i < m_workers.size(); ++i)
        m_completionPort.wakeOne();
    for (std::thread &worker : m_workers)
        worker.join();
    m_workers.clear();
}

void Tunnel::startThreads()
{
    const unsigned workers = workerCount(std::thread::hardware_concurrency());
    for (unsigned index = 0; index < workers; ++index)
        m_workers.emplace_back(&Tunnel::runWorker, this, index);
    m_flowControlThread = std::thread(&Tunnel::runFlowControl, this);
    m_adapter->startReading();
}

void Tunnel::runWorker(unsigned index)
{
    WorkerHousekeeping housekeeping(index, m_housekeeping);
    while (m_running) {
        switch (m_completionPort.runOne(workerWait)) {
        case CompletionPort::Outcome::Completed: housekeeping.afterCompletion(); break;
        case CompletionPort::Outcome::Nothing: break;
        case CompletionPort::Outcome::Failed: Sleep(1); break;
        }
    }
}

void Tunnel::dispatchPacket(const std::uint8_t *data, std::size_t len)
try {
    // After the stop began, nothing new may reach what it is taking down.
    if (m_running)
        m_dispatcher->dispatch(data, len, m_proxyGate.isOpen());
} catch (const std::bad_alloc &) {
    // The packet is lost, as packets are.
}

} // namespace ruvo
