#include "filtering/judge.h"

#include "filtering/app_id.h"
#include "filtering/engine_connection.h"
#include "filtering/verdicts.h"
#include "netconfig/socket_descriptor.h"

#include <atomic>

namespace ruvo::winehost {

namespace {

constexpr ULONGLONG lookAgainMs = 1000;

/// What a socket sends to, as long as nobody looks at the socket itself: that would cost more than the sending.
struct Sending
{
    SOCKET socket = INVALID_SOCKET;
    Flow to;

    bool operator==(const Sending &) const = default;
};

std::size_t hashOf(const Flow &flow)
{
    std::size_t hash = flow.port + (flow.isUdp ? 0x10000U : 0U);
    for (const std::uint8_t byte : flow.remote)
        hash = hash * 31 + byte;
    return hash;
}

std::size_t hashOf(const Sending &sending)
{
    return hashOf(sending.to) + (static_cast<std::size_t>(sending.socket) >> 2) * 97;
}

class Judge
{
public:
    bool isAbsent(ULONGLONG now) const { return now < m_absentUntil.load(std::memory_order_relaxed); }

    bool passes(const Flow &flow, ULONGLONG now)
    {
        const std::size_t hash = hashOf(flow);
        if (const auto known = m_flows.find(flow, hash, now))
            return *known;
        const unsigned generation = m_generation;
        const bool passes = ask(flow, now);
        if (m_generation == generation)
            m_flows.keep(flow, hash, now, passes);
        return passes;
    }

    Verdicts<Sending> &sendings() { return m_sendings; }

    void forget()
    {
        ++m_generation;
        m_flows.forget();
        m_sendings.forget();
    }

private:
    bool ask(const Flow &flow, ULONGLONG now)
    {
        const std::lock_guard lock(m_lock);
        if (isAbsent(now))
            return true;
        if (m_program.empty())
            m_program = ownAppId();
        JsonLine question;
        question.add("call", "judge")
            .add("program", std::wstring_view(m_program))
            .add("family", flow.isIpv6 ? 6 : 4)
            .add("direction", "connect")
            .add("local", std::string_view(addressText(flow.local, flow.isIpv6)))
            .add("remote", std::string_view(addressText(flow.remote, flow.isIpv6)))
            .add("port", flow.port)
            .add("protocol", flow.isUdp ? "udp" : "tcp");
        if (flow.interfaceIndex != 0)
            question.add("interface", flow.interfaceIndex);
        if (m_connection || m_connection.connect()) {
            if (const auto answer = m_connection.ask(question))
                return (*answer)["error"].number != 0 || (*answer)["passes"].flag;
        }
        m_absentUntil = GetTickCount64() + lookAgainMs;
        return true;
    }

    Lock m_lock; // of the connection and the name
    EngineConnection m_connection;
    std::wstring m_program;
    std::atomic<ULONGLONG> m_absentUntil = 0;
    std::atomic<unsigned> m_generation = 0; // verdicts that were asked for before do not count
    Verdicts<Flow> m_flows;
    Verdicts<Sending> m_sendings;
};

Judge s_judge;

} // namespace

bool passesFilters(SOCKET socket, const sockaddr *remote, int size)
{
    if (s_judge.isAbsent(GetTickCount64()))
        return true;
    const auto facts = factsOf(descriptorOf(reinterpret_cast<HANDLE>(socket)));
    return !facts || passesFilters(*facts, remote, size);
}

bool passesFilters(const SocketFacts &facts, const sockaddr *remote, int size)
{
    const ULONGLONG now = GetTickCount64();
    if (s_judge.isAbsent(now))
        return true;
    auto flow = flowTo(remote, size);
    return !flow || !completeFlow(*flow, facts) || s_judge.passes(*flow, now);
}

bool sendingPasses(SOCKET socket, const sockaddr *remote, int size)
{
    const ULONGLONG now = GetTickCount64();
    if (s_judge.isAbsent(now))
        return true;
    const auto flow = flowTo(remote, size);
    if (!flow)
        return true;
    const Sending sending{socket, *flow};
    const std::size_t hash = hashOf(sending);
    if (const auto known = s_judge.sendings().find(sending, hash, now))
        return *known;
    const bool passes = passesFilters(socket, remote, size);
    s_judge.sendings().keep(sending, hash, now, passes);
    return passes;
}

int judgedConnect(SOCKET socket, const sockaddr *remote, int size)
{
    if (passesFilters(socket, remote, size))
        return connect(socket, remote, size);
    WSASetLastError(WSAEACCES);
    return SOCKET_ERROR;
}

int judgedSendTo(SOCKET socket, const char *data, int dataSize, int flags, const sockaddr *remote, int size)
{
    if (sendingPasses(socket, remote, size))
        return sendto(socket, data, dataSize, flags, remote, size);
    WSASetLastError(WSAEACCES);
    return SOCKET_ERROR;
}

void forgetVerdicts()
{
    s_judge.forget();
}

} // namespace ruvo::winehost
