// netclient: a Windows program that opens one connection, to be copied under the names that a test needs.
//
//     netclient tcp ADDRESS PORT STEP…      netclient udp ADDRESS PORT TEXT
//
// Steps, one after the other:
//     send TEXT     line     rest      TEXT and a line feed; a line from the other side; all until the end
//     finish        reset              the end of what is sent; the connection goes with a reset, now
//     wait                             until a line comes from standard input, or its end
// Each thing that happens is a line of JSON: "event", then what belongs to it. Exit status 0 if all steps were done.
// Addresses are of IPv4 or IPv6. What the filters of the machine block fails with error 10013, as for any program.

#include "common/winsock_headers.h"

#include "common/windows_handles.h"
#include "filtering/judge.h"
#include "library/json_line.h"
#include "library/text.h"
#include "netclient/endpoint.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace ruvo::winehost {

namespace {

constexpr DWORD patienceMs = 60000;

JsonLine event(std::string_view name)
{
    JsonLine line;
    line.add("event", name);
    return line;
}

void tell(const JsonLine &line)
{
    std::puts(line.text().c_str());
    std::fflush(stdout);
}

bool tellFailure(std::string_view call)
{
    const int error = WSAGetLastError();
    tell(event("failed").add("call", call).add("error", error));
    return false;
}

/// What came and was not told yet.
class Receiver
{
public:
    explicit Receiver(SOCKET socket) : m_socket(socket) {}

    bool tellLine()
    {
        std::size_t end = m_text.find('\n');
        while (end == std::string::npos) {
            const int count = receive();
            if (count < 0)
                return tellFailure("recv");
            if (count == 0) {
                tell(event("end").add("text", std::string_view(m_text)));
                return false;
            }
            end = m_text.find('\n');
        }
        tell(event("line").add("text", std::string_view(m_text).substr(0, end)));
        m_text.erase(0, end + 1);
        return true;
    }

    bool tellRest()
    {
        for (;;) {
            const int count = receive();
            if (count == 0)
                break;
            if (count < 0) {
                tell(event("rest").add("text", std::string_view(m_text)));
                return tellFailure("recv");
            }
        }
        tell(event("rest").add("text", std::string_view(m_text)));
        m_text.clear();
        return true;
    }

private:
    int receive()
    {
        char block[4096];
        const int count = recv(m_socket, block, sizeof block, 0);
        if (count > 0)
            m_text.append(block, static_cast<std::size_t>(count));
        return count;
    }

    const SOCKET m_socket;
    std::string m_text;
};

void waitForInput()
{
    tell(event("waiting"));
    for (int c = std::getchar(); c != '\n' && c != EOF;)
        c = std::getchar();
}

bool sendText(SOCKET socket, const std::string &text)
{
    for (std::size_t sent = 0; sent < text.size();) {
        const int count = send(socket, text.data() + sent, static_cast<int>(text.size() - sent), 0);
        if (count < 0)
            return tellFailure("send");
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

bool takeSteps(Socket &socket, const std::vector<std::string> &steps)
{
    Receiver receiver(socket.get());
    for (auto step = steps.begin(); step != steps.end(); ++step) {
        bool done = true;
        if (*step == "send" && step + 1 != steps.end()) {
            done = sendText(socket.get(), *++step + '\n');
        } else if (*step == "line") {
            done = receiver.tellLine();
        } else if (*step == "rest") {
            done = receiver.tellRest();
        } else if (*step == "finish") {
            done = shutdown(socket.get(), SD_SEND) == 0 || tellFailure("shutdown");
        } else if (*step == "wait") {
            waitForInput();
        } else if (*step == "reset") {
            const linger at0{1, 0};
            setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char *>(&at0), sizeof at0);
            socket.reset();
            return step + 1 == steps.end();
        } else {
            tell(event("failed").add("unknown-step", std::string_view(*step)));
            return false;
        }
        if (!done)
            return false;
    }
    return true;
}

bool runTcp(const Endpoint &remote, const std::vector<std::string> &steps)
{
    Socket socket(::socket(remote.family(), SOCK_STREAM, IPPROTO_TCP));
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&patienceMs), sizeof patienceMs);
    if (!socket || judgedConnect(socket.get(), remote.generic(), remote.size) != 0)
        return tellFailure("connect");
    tell(event("connected")
             .add("pid", GetCurrentProcessId())
             .add("local", std::string_view(localEndpoint(socket.get()).text())));
    return takeSteps(socket, steps);
}

bool runUdp(const Endpoint &remote, const std::string &text)
{
    Socket socket(::socket(remote.family(), SOCK_DGRAM, IPPROTO_UDP));
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&patienceMs), sizeof patienceMs);
    const int length = static_cast<int>(text.size());
    if (!socket || judgedSendTo(socket.get(), text.data(), length, 0, remote.generic(), remote.size) != length)
        return tellFailure("sendto");
    tell(event("sent")
             .add("pid", GetCurrentProcessId())
             .add("local", std::string_view(localEndpoint(socket.get()).text())));
    static char answer[65536];
    Endpoint from;
    const int count = recvfrom(socket.get(), answer, sizeof answer, 0, from.generic(), &from.size);
    if (count < 0)
        return tellFailure("recvfrom");
    tell(event("answer")
             .add("from", std::string_view(from.text()))
             .add("text", std::string_view(answer, static_cast<std::size_t>(count))));
    return true;
}

int run(const std::vector<std::string> &words)
{
    const auto endpoint = words.size() > 2 ? parseEndpoint(words[1], words[2]) : std::nullopt;
    if (endpoint && words[0] == "tcp")
        return runTcp(*endpoint, {words.begin() + 3, words.end()}) ? 0 : 1;
    if (endpoint && words[0] == "udp" && words.size() == 4)
        return runUdp(*endpoint, words[3]) ? 0 : 1;
    std::fputs("netclient tcp ADDRESS PORT STEP...   netclient udp ADDRESS PORT TEXT\n", stderr);
    return 2;
}

} // namespace

} // namespace ruvo::winehost

int wmain(int argc, wchar_t **argv)
{
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i)
        words.push_back(ruvo::winehost::toUtf8(argv[i]));
    WSADATA data;
    if (const int error = WSAStartup(MAKEWORD(2, 2), &data); error != 0) {
        std::fprintf(stderr, "WSAStartup: %d\n", error);
        return EXIT_FAILURE;
    }
    const int status = ruvo::winehost::run(words);
    WSACleanup();
    return status;
}
