#include "nat/connect_log.h"

#include "common/log_category.h"
#include "socks5/socks_failure_log.h"

#include <QString>

namespace ruvo {

using Step = PortExchangeFailure::Step;

void ConnectLog::proxyFailed(const PortExchangeFailure &failure, bool byName)
{
    switch (failure.step) {
    case Step::CreateSocket:
        if (m_noSocket.take())
            qCWarning(lcRuvod) << "Failed to create socket:" << failure.error;
        break;
    case Step::Bind:
        if (m_notBound.take())
            qCWarning(lcRuvod) << "Failed to bind socket:" << failure.error;
        break;
    case Step::Associate: notOnPort(failure); break;
    case Step::FindConnectEx:
    case Step::IssueConnect:
    case Step::Connect:
        if (m_proxyNotReached.take())
            qCWarning(lcRuvod) << "Failed to connect to proxy:" << failure.error;
        break;
    case Step::IssueSend:
    case Step::Send:
    case Step::IssueReceive:
    case Step::Receive:
    case Step::Answer: exchangeFailed(failure.socks, byName); break;
    }
}

void ConnectLog::directFailed(const PortExchangeFailure &failure, const Endpoint &destination)
{
    switch (failure.step) {
    case Step::CreateSocket:
        if (m_noDirectSocket.take())
            qCWarning(lcRuvod) << "[TCP-NAT] Failed to create direct socket:" << failure.error;
        break;
    case Step::Associate: notOnPort(failure); break;
    default:
        if (m_notReachedDirectly.take()) {
            qCWarning(lcRuvod).nospace().noquote() << "[TCP-NAT] Failed to connect directly to "
                                                   << formatEndpoint(destination) << " - Error: " << failure.error;
        }
    }
}

void ConnectLog::notOnPort(const PortExchangeFailure &failure)
{
    if (m_notOnPort.take())
        qCWarning(lcRuvod) << "[TCP-NAT-IOCP] Failed to associate dest socket with IOCP:" << failure.error;
}

void ConnectLog::exchangeFailed(const socks5::SocksFailure &failure, bool byName)
{
    auto &kinds = m_refused[std::to_underlying(failure.step)];
    if (kinds[byName ? 1 : 0][failure.isCutOff ? 1 : 0].take())
        logSocksFailure(failure, byName);
}

void ConnectLog::noProxyAddress(const std::wstring &host)
{
    if (m_noProxyAddress.take())
        qCWarning(lcRuvod) << "Invalid proxy address:" << QString::fromStdWString(host);
}

void ConnectLog::nameTooLong()
{
    if (m_nameTooLong.take())
        qCWarning(lcRuvod) << "Invalid domain name length";
}

void ConnectLog::proxyGivenUp()
{
    if (m_proxyGivenUp.take())
        qCWarning(lcRuvod) << "[TCP-NAT] Failed to connect to SOCKS5 proxy";
}

void ConnectLog::tooMany()
{
    if (m_tooMany.take())
        qCWarning(lcRuvod) << "[TCP-NAT] Too many connections, refusing one";
}

void ConnectLog::clientBlocks(int error)
{
    if (m_clientBlocks.take())
        qCWarning(lcRuvod) << "[TCP-NAT] Failed to make the client socket non-blocking:" << error;
}

void ConnectLog::destinationBlocks(int error)
{
    if (m_destinationBlocks.take())
        qCWarning(lcRuvod) << "[TCP-NAT] Failed to make the destination socket non-blocking:" << error;
}

void ConnectLog::usingDirect(const Endpoint &destination)
{
    if (m_usingDirect.take())
        qCCritical(lcRuvod).nospace().noquote()
            << "[TCP-NAT] Using DIRECT routing to " << formatEndpoint(destination);
}

void ConnectLog::notBoundToInterface(std::uint32_t interfaceIndex, int error)
{
    if (m_notBoundToInterface.take()) {
        qCWarning(lcRuvod) << "[TCP-NAT] Failed to bind to physical interface" << interfaceIndex
                           << "- Error:" << error;
    }
}

} // namespace ruvo
