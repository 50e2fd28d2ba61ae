#pragma once

#include "common/endpoint.h"
#include "common/proxy_sign.h"
#include "common/steady_clock.h"
#include "common/windows_handles.h"
#include "io/completion_port.h"
#include "io/page_buffer.h"
#include "io/socket_wait.h"
#include "nat/udp_nat_log.h"
#include "socks5/socks5_messages.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>

namespace ruvo {

/// A flow's association with the proxy: a control connection, which it lasts as long as, and a UDP socket. Or that
/// socket alone, for a flow that goes past the proxy.
///
/// open blocks and belongs to the thread that opens it; send is called by one thread at a time; answers arrive on the
/// port's workers. m_mutex guards the issuing of receives against close; the sockets themselves are closed by the
/// last reference.
class UdpNatSession : public std::enable_shared_from_this<UdpNatSession>
{
public:
    /// Gets each answer's payload on a worker.
    using AnswerCallback = std::function<void(UdpNatSession &session, std::span<const std::uint8_t> payload)>;

    /// `target` is where the proxy shall send, or where a direct flow's datagrams go; `socksPort` the inbound that
    /// the proxy is asked on. The log outlives all that is in flight.
    UdpNatSession(const FlowKey &key, const Endpoint &target, std::uint16_t socksPort, UdpNatLog &log);
    ~UdpNatSession();
    UdpNatSession(const UdpNatSession &) = delete;
    UdpNatSession &operator=(const UdpNatSession &) = delete;

    const FlowKey &key() const { return m_key; }
    const Endpoint &target() const { return m_target; }
    std::uint16_t socksPort() const { return m_socksPort; }

    /// Connects to the proxy, asks for the association, and puts the UDP socket on the port. Every failure but the
    /// silent ones (no socket, no host address, an end in the middle of a reply) is logged.
    bool open(const std::wstring &proxyHost, HANDLE stopEvent, CompletionPort &completionPort);
    /// In its place: datagrams go to the target itself, through the interface of that index and no other. Does not
    /// block; every failure is logged.
    bool openDirect(std::uint32_t interfaceIndex, CompletionPort &completionPort);
    /// What open has seen of the proxy, for the thread that has called it.
    const std::optional<ProxySighting> &proxySighting() const { return m_proxySighting; }
    /// From here on answers come, and the end of the control connection makes the session inactive.
    void startReceiving(CompletionPort &completionPort, AnswerCallback answer);
    /// False, and logged, if the proxy's relay cannot be sent to. A datagram that the socket has no room for, or that
    /// hears of an earlier one's refusal, is lost as datagrams are, and so is each that cannot be sent directly.
    bool send(std::span<const std::uint8_t> payload);
    /// Nothing is received any more.
    void close();

    /// Whether the proxy still keeps the association; of a direct flow, whether its socket still works.
    bool isActive() const { return m_active; }

    /// Of UdpNatRelay, under its mutex.
    SteadyTime lastActivity;
    std::list<std::shared_ptr<UdpNatSession>>::iterator position;

private:
    bool connectControl(const std::wstring &proxyHost, HANDLE stopEvent);
    bool associateWithProxy(SocketWait &wait, std::uint32_t proxyAddress);
    /// On any interface if the index is 0.
    bool openUdpSocket(const sockaddr_in &peer, CompletionPort &completionPort, std::uint32_t interfaceIndex = 0);
    void postReceive();
    void watchControl();
    void onReceived(DWORD bytes, DWORD error);
    void onControlReceived(DWORD bytes, DWORD error);

    const FlowKey m_key;
    const Endpoint m_target;
    const std::uint16_t m_socksPort;
    const std::array<std::uint8_t, socks5::udpHeaderSizeIpv4> m_header;
    UdpNatLog &m_log;
    std::optional<ProxySighting> m_proxySighting;
    bool m_isDirect = false;
    std::atomic<bool> m_active = true;

    std::mutex m_mutex;
    bool m_closed = false;
    Socket m_control;
    Socket m_udp;
    sockaddr_in m_relay{};
    CompletionPort *m_completionPort = nullptr;
    AnswerCallback m_answer;

    std::atomic<bool> m_receivePending = false;
    MemberOperation<&UdpNatSession::onReceived> m_receive{*this};
    const PageBuffer<std::uint8_t> m_buffer;
    /// Completes when the control connection ends.
    MemberOperation<&UdpNatSession::onControlReceived> m_controlWatch{*this};
    char m_controlByte = 0;
};

using UdpNatSessionPtr = std::shared_ptr<UdpNatSession>;

} // namespace ruvo
