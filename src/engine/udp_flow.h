#pragma once

#include "common/steady_clock.h"
#include "common/upstream_decision.h"
#include "common/windows_handles.h"
#include "engine/udp_datagrams.h"
#include "io/completion_port.h"
#include "io/page_buffer.h"
#include "socks5/port_exchange.h"
#include "socks5/socks_client.h"

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>

namespace ruvo {

/// What a flow is known by. What an application asks the tunnel's own DNS address, and what it asks the public
/// resolver behind it, are two flows, as their answers come from different addresses.
struct UdpFlowId
{
    ConnectionKey key;
    /// Where the application sends, and where its answers come from. Host order; 0 for IPv6, where nothing is
    /// replaced.
    std::uint32_t requestedIp = 0;
    auto operator<=>(const UdpFlowId &) const = default;
};

class UdpFlow;
using UdpFlowPtr = std::shared_ptr<UdpFlow>;

/// What is not the same in every tunnel, and where the flow's completions go.
struct UdpFlowContext
{
    CompletionPort &completionPort;
    std::wstring proxyHost;
    /// The proxy host, in host order: where datagrams go when its reply names no address.
    std::uint32_t proxyAddress = 0;
    /// On a worker, `error` as the completion port has it.
    std::function<void(const UdpFlowPtr &flow, DWORD bytes, DWORD error)> onReceived;
    /// The proxy has ended the association.
    std::function<void(const UdpFlowPtr &flow)> onControlEnded;
};

/// One application's UDP flow and its association with the proxy: a control connection, which it lasts as long as,
/// and a UDP socket that is connected to the relay, so that nobody else's datagrams come in.
///
/// From any thread. m_mutex guards everything here but the constants: all calls on the sockets are made under it
/// (none of them waits), so they are closed under it too. No callback is called under it. Every operation in flight
/// holds a reference.
class UdpFlow : public std::enable_shared_from_this<UdpFlow>
{
public:
    static constexpr std::size_t bufferSize = 0x10000;
    /// Of state(): the association stands.
    static constexpr int readyState = 5;

    /// `context` has to outlive it.
    UdpFlow(const UdpFlowId &id, UpstreamDecision upstream, const UdpFlowContext &context);

    const UdpFlowId &id() const { return m_id; }
    std::uint16_t upstreamPort() const { return m_upstream.port; }
    /// 0 connecting, 1 greeting sent, 2 method reply awaited, 3 ASSOCIATE sent, 4 its reply awaited, 5 ready.
    int state() const;

    /// The exchange that asks the proxy for the association; before open.
    void setExchange(PortExchangePtr exchange);
    /// Begins the exchange. Its callback may run in here.
    void open();
    void expireIfOverdue(SteadyTime now);

    /// Why an association that the proxy has granted cannot be used.
    struct SetupFailure
    {
        enum class Step {
            Closed, ///< nobody wants it any more
            RelaySocket,
            Associate, ///< `error` is GetLastError(); the socket's number is for diagnostics only
            Receive,   ///< `error` is WSAGetLastError()
        };
        Step step = Step::Closed;
        int error = NO_ERROR;
        SOCKET socket = INVALID_SOCKET;
    };
    /// Takes the association over: from here on answers come, and what has waited goes out.
    std::optional<SetupFailure> establish(EstablishedExchange established);

    /// Sends the datagram, or keeps it until the association stands. What the socket cannot take is lost.
    void send(std::span<const std::uint8_t> payload);

    /// What became of a receive.
    struct Posted
    {
        enum class State { InFlight, AlreadyPending, NotReady, Closed, Failed };
        State state = State::Closed;
        int error = NO_ERROR;           ///< of what has Failed: WSAGetLastError()
        SOCKET socket = INVALID_SOCKET; ///< for diagnostics only
    };
    Posted postReceive();
    /// The last datagram that was received, up to the next postReceive.
    std::span<const std::uint8_t> received(std::size_t bytes) const { return {m_buffer.get(), bytes}; }

    /// Ends everything that is in flight; nothing is issued and nothing is sent from here on.
    void cancel();
    /// As cancel, and closes the sockets.
    void close();

    /// Of UdpFlows, under its mutex.
    SteadyTime lastActivity;
    std::list<UdpFlowPtr>::iterator position;

private:
    // All under m_mutex.
    std::optional<SetupFailure> openRelaySocket(const std::optional<Endpoint> &bound);
    Posted issueReceive();
    bool watchControl();
    void sendNow(const FlowDatagram &datagram);
    void cancelIo();

    void onReceived(DWORD bytes, DWORD error);
    void onControlRead(DWORD bytes, DWORD error);

    const UdpFlowId m_id;
    const UpstreamDecision m_upstream;
    const UdpFlowContext &m_context;

    mutable std::mutex m_mutex;
    bool m_closed = false;
    PortExchangePtr m_exchange;
    UdpDatagramQueue m_waiting;

    Socket m_control;
    bool m_controlSkipsPort = false;
    std::array<char, 64> m_controlBytes{};
    MemberOperation<&UdpFlow::onControlRead> m_controlWatch{*this};

    /// The UDP socket and the relay; null until the association stands.
    std::unique_ptr<SocksClient> m_socks;
    PageBuffer<std::uint8_t> m_buffer;
    bool m_receivePending = false;
    MemberOperation<&UdpFlow::onReceived> m_receive{*this};
};

} // namespace ruvo
