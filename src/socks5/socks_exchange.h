#pragma once

#include "common/endpoint.h"
#include "socks5/socks5_messages.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <variant>

namespace ruvo::socks5 {

/// CONNECT to an IPv6 address.
struct Ipv6Destination
{
    Ipv6Address address{};
    std::uint16_t port = 0;
};
/// CONNECT to a name, which the proxy looks up.
struct NamedDestination
{
    std::string name;
    std::uint16_t port = 0;
};
/// UDP ASSOCIATE.
struct UdpAssociation
{};
/// What the proxy is asked for; an Endpoint is CONNECT to an IPv4 address.
using SocksRequest = std::variant<Endpoint, Ipv6Destination, NamedDestination, UdpAssociation>;

/// The request's bytes. Nothing if it is for a name that is empty or longer than `maxName`.
std::optional<Bytes> requestBytes(const SocksRequest &request, std::size_t maxName = maxDomainLength);

/// Where an exchange stands, numbered as the states of a connection are in diagnostics (1 is the connect before it).
enum class ExchangeStep : std::uint8_t {
    Greeting = 2,    ///< is being sent
    MethodReply = 3, ///< is awaited
    Request = 4,     ///< is being sent
    Reply = 5,       ///< is awaited
};

/// Why an exchange came to nothing.
struct SocksFailure
{
    ExchangeStep step = ExchangeStep::Greeting;
    /// The stream ended (or failed) there. Else the answer of this step was not the one wanted.
    bool isCutOff = false;
    /// What had come of the answer; none while sending.
    Bytes bytes;

    /// The answer's first byte; 0 if it never came.
    std::uint8_t version() const { return bytes.empty() ? 0 : bytes[0]; }
    /// Its second byte: the method, or the REP field; 0 if it never came.
    std::uint8_t code() const { return bytes.size() < 2 ? 0 : bytes[1]; }
};

/// One exchange with a SOCKS5 proxy (RFC 1928) on a stream that is connected already: greeting, method, request and
/// reply. It has no socket, no clock and no log: its owner sends and receives what it asks for, whole or in pieces of
/// any size, and tells it what went out and what came.
///
///     while (exchange.state() is Sends or Receives)
///         Sends:    send toSend(), then sent(count)
///         Receives: receive into room(), then received(count)
///
/// No more is ever received than belongs to the answers: what comes behind them is the stream's. One thread at a
/// time.
class SocksExchange
{
public:
    enum class State { Sends, Receives, Succeeded, Failed };

    /// The whole exchange. With an empty `request` it has succeeded as soon as the proxy accepts the method.
    explicit SocksExchange(Bytes request) : SocksExchange(std::move(request), ExchangeStep::Greeting) {}
    /// Only the request and its reply, on a stream where the proxy has accepted the method.
    static SocksExchange ofRequest(Bytes request) { return {std::move(request), ExchangeStep::Request}; }

    State state() const { return m_state; }
    ExchangeStep step() const { return m_step; }

    /// Whether the proxy has accepted the method; whatever becomes of the exchange then, it still has.
    bool isGreetingAccepted() const { return m_state == State::Succeeded || m_step >= ExchangeStep::Request; }

    /// What is to be sent next; never empty in Sends, empty in all other states.
    ByteView toSend() const;
    /// So many bytes of it went out.
    void sent(std::size_t count);
    /// Where the next bytes are to be received, and how many at most: 2, then 10, then what the reply's address adds.
    /// It stays in place until received or cutOff is called. Empty in all states but Receives.
    std::span<std::uint8_t> room();
    /// So many bytes came; 0 is the end of the stream.
    void received(std::size_t count);
    /// The stream has ended or failed, or nobody wants to wait any longer: the exchange fails where it stands.
    void cutOff();

    /// What came of the answer of this step, or of the last one.
    ByteView reply() const { return {m_reply.data(), m_received}; }
    /// The address in the reply of an exchange that has succeeded; nothing if that is no IPv4 address.
    std::optional<Endpoint> bound() const;
    /// Of an exchange that has failed: why. Without its bytes if there is no memory for them.
    SocksFailure failure() const;

private:
    SocksExchange(Bytes request, ExchangeStep first);

    void judge();

    Bytes m_request;
    State m_state = State::Sends;
    ExchangeStep m_step;
    bool m_isCutOff = false;
    std::size_t m_sent = 0;
    std::array<std::uint8_t, maxReplySize> m_reply{};
    /// Of the answer that is awaited: what came, and how much is known to belong to it.
    std::size_t m_received = 0;
    std::size_t m_expected = 0;
};

} // namespace ruvo::socks5
