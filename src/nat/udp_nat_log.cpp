#include "nat/udp_nat_log.h"

#include "common/log_category.h"
#include "socks5/socks5_messages.h"

#include <cstddef>

namespace ruvo {

namespace {

constexpr std::size_t replyAddressType = 3; // RFC 1928 section 6

} // namespace

void UdpNatLog::proxyNotReached(int error)
{
    if (m_proxyNotReached.take())
        qCWarning(lcRuvod) << "[UDP-NAT] Failed to connect to SOCKS5 proxy:" << error;
}

void UdpNatLog::exchangeFailed(const socks5::SocksFailure &failure)
{
    if (failure.step == socks5::ExchangeStep::MethodReply && !failure.isCutOff) {
        if (m_authFailed.take())
            qCWarning(lcRuvod) << "[UDP-NAT] SOCKS5 auth failed:" << failure.version() << failure.code();
    } else if (failure.step == socks5::ExchangeStep::Reply) {
        if (failure.bytes.size() < socks5::minReplySize) {
            if (m_shortReply.take()) {
                qCWarning(lcRuvod) << "[UDP-NAT] Invalid UDP ASSOCIATE response, got" << failure.bytes.size()
                                   << "bytes";
            }
        } else if (!failure.isCutOff) {
            if (m_associateFailed.take())
                qCWarning(lcRuvod) << "[UDP-NAT] UDP ASSOCIATE failed:" << failure.code();
        } else { // only addresses of other types are longer than what has come
            unexpectedAddressType(failure.bytes[replyAddressType]);
        }
    }
}

void UdpNatLog::unexpectedAddressType(std::uint8_t type)
{
    if (m_unexpectedAddressType.take())
        qCWarning(lcRuvod) << "[UDP-NAT] Unexpected ATYP in response:" << type;
}

void UdpNatLog::notBound(int error)
{
    if (m_notBound.take())
        qCWarning(lcRuvod) << "[UDP-NAT] Failed to bind UDP socket:" << error;
}

void UdpNatLog::notBoundToInterface(std::uint32_t interfaceIndex, int error)
{
    if (m_notBoundToInterface.take()) {
        qCWarning(lcRuvod) << "[UDP-NAT] Failed to bind to physical interface" << interfaceIndex
                           << "- Error:" << error;
    }
}

void UdpNatLog::notConnected(int error)
{
    if (m_notConnected.take())
        qCWarning(lcRuvod) << "[UDP-NAT] Failed to connect UDP socket:" << error;
}

void UdpNatLog::notAssociated(unsigned long error)
{
    if (m_notAssociated.take())
        qCWarning(lcRuvod) << "[UDP-NAT] Failed to associate socket with IOCP:" << error;
}

void UdpNatLog::receiveFailed(int error)
{
    if (m_receiveFailed.take())
        qCWarning(lcRuvod) << "[UDP-NAT] WSARecvFrom failed:" << error;
}

void UdpNatLog::invalidHeader()
{
    if (m_invalidHeader.take())
        qCWarning(lcRuvod) << "[UDP-NAT] Failed to parse SOCKS5 UDP header";
}

void UdpNatLog::sendFailed(int error)
{
    if (m_sendFailed.take())
        qCWarning(lcRuvod) << "[UDP-NAT] Failed to send to relay:" << error;
}

void UdpNatLog::directSendFailed(int error)
{
    if (m_directSendFailed.take())
        qCWarning(lcRuvod) << "[UDP-NAT] Failed to send directly:" << error;
}

void UdpNatLog::sessionFailed(const Endpoint &target)
{
    if (m_sessionFailed.take()) {
        qCWarning(lcRuvod).nospace().noquote()
            << "[UDP-NAT] Failed to create SOCKS5 UDP session for " << formatEndpoint(target);
    }
}

void UdpNatLog::noPhysicalInterface(const Endpoint &target)
{
    if (m_noPhysicalInterface.take()) {
        qCWarning(lcRuvod).nospace().noquote()
            << "[UDP-NAT] No physical interface for the direct flow to " << formatEndpoint(target) << ", dropping it";
    }
}

} // namespace ruvo
