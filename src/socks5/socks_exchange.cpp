#include "socks5/socks_exchange.h"

#include <algorithm>
#include <new>
#include <utility>

namespace ruvo::socks5 {

namespace {

template<std::size_t Size>
Bytes toBytes(const std::array<std::uint8_t, Size> &bytes)
{
    return {bytes.begin(), bytes.end()};
}

struct RequestWriter
{
    std::size_t maxName;

    std::optional<Bytes> operator()(const Endpoint &to) const { return toBytes(connectRequest(to.address, to.port)); }
    std::optional<Bytes> operator()(const Ipv6Destination &to) const { return connectRequest(to.address, to.port); }
    std::optional<Bytes> operator()(const NamedDestination &to) const
    {
        return connectRequest(to.name, to.port, maxName);
    }
    std::optional<Bytes> operator()(const UdpAssociation &) const { return toBytes(udpAssociateRequest); }
};

} // namespace

std::optional<Bytes> requestBytes(const SocksRequest &request, std::size_t maxName)
{
    return std::visit(RequestWriter{maxName}, request);
}

SocksExchange::SocksExchange(Bytes request, ExchangeStep first) : m_request(std::move(request)), m_step(first) {}

ByteView SocksExchange::toSend() const
{
    if (m_state != State::Sends)
        return {};
    return (m_step == ExchangeStep::Greeting ? ByteView(greeting) : ByteView(m_request)).subspan(m_sent);
}

void SocksExchange::sent(std::size_t count)
{
    m_sent += std::min(count, toSend().size());
    if (m_state != State::Sends || !toSend().empty())
        return;
    m_state = State::Receives;
    m_received = 0;
    m_expected = m_step == ExchangeStep::Greeting ? methodReplySize : minReplySize;
    m_step = m_step == ExchangeStep::Greeting ? ExchangeStep::MethodReply : ExchangeStep::Reply;
}

std::span<std::uint8_t> SocksExchange::room()
{
    if (m_state != State::Receives)
        return {};
    return std::span(m_reply).subspan(m_received, m_expected - m_received);
}

void SocksExchange::received(std::size_t count)
{
    if (m_state != State::Receives)
        return;
    if (count == 0)
        return cutOff();
    m_received += std::min(count, room().size());
    if (m_received == m_expected)
        judge();
}

void SocksExchange::cutOff()
{
    if (m_state == State::Sends || m_state == State::Receives) {
        m_isCutOff = true;
        m_state = State::Failed;
    }
}

/// As much of the answer has come as was asked for.
void SocksExchange::judge()
{
    if (m_step == ExchangeStep::MethodReply) {
        if (!isMethodAccepted(reply())) {
            m_state = State::Failed;
        } else if (m_request.empty()) {
            m_state = State::Succeeded;
        } else {
            m_state = State::Sends;
            m_step = ExchangeStep::Request;
            m_sent = 0;
            m_received = 0;
        }
        return;
    }
    // Nothing of a refusal is read beyond its code.
    if (replyFailure(reply()))
        m_state = State::Failed;
    else if (const std::size_t size = replySize(reply()); size > m_expected)
        m_expected = size;
    else
        m_state = State::Succeeded;
}

std::optional<Endpoint> SocksExchange::bound() const
{
    return m_state == State::Succeeded ? parseUdpAssociateReply(reply(), 0) : std::nullopt;
}

SocksFailure SocksExchange::failure() const
{
    SocksFailure failure{.step = m_step, .isCutOff = m_isCutOff, .bytes = {}};
    try {
        failure.bytes.assign(reply().begin(), reply().end());
    } catch (const std::bad_alloc &) {
        // They are for the log only.
    }
    return failure;
}

} // namespace ruvo::socks5
