// The owners of real connections: this program's own, other Windows programs' and those of programs of Linux.

#include "netcfg/port_owner_lookup.h"

#include "common/windows_handles.h"
#include "namespace/bench_files.h"
#include "namespace/linux_command.h"
#include "support/wait_until.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace ruvo {
namespace {

using test::linuxOutput;
using testing::EndsWith;
using testing::StartsWith;

constexpr std::uint32_t loopback = INADDR_LOOPBACK;

sockaddr_in endpoint(std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(loopback);
    address.sin_port = htons(port);
    return address;
}

Socket makeSocket(int type)
{
    return Socket(WSASocketW(AF_INET, type, 0, nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT));
}

Socket boundSocket(int type)
{
    Socket socket = makeSocket(type);
    const sockaddr_in any = endpoint(0);
    EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr *>(&any), sizeof(any)), 0);
    return socket;
}

std::uint16_t localPort(const Socket &socket)
{
    sockaddr_in local{};
    int size = sizeof(local);
    EXPECT_EQ(getsockname(socket.get(), reinterpret_cast<sockaddr *>(&local), &size), 0);
    return ntohs(local.sin_port);
}

Socket connectTo(std::uint16_t port)
{
    Socket socket = makeSocket(SOCK_STREAM);
    const sockaddr_in address = endpoint(port);
    EXPECT_EQ(connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    return socket;
}

/// A process of Windows that is ended with the test.
class WindowsProgram
{
public:
    WindowsProgram(const std::filesystem::path &program, const std::wstring &arguments)
    {
        STARTUPINFOW startup{};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION information{};
        std::wstring line = L'"' + program.wstring() + L"\" " + arguments;
        EXPECT_TRUE(CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr,
                                   &startup, &information))
            << GetLastError();
        CloseHandle(information.hThread);
        m_process.reset(information.hProcess);
        m_id = information.dwProcessId;
    }
    ~WindowsProgram() { end(); }

    DWORD id() const { return m_id; }
    void end()
    {
        TerminateProcess(m_process.get(), 0);
        EXPECT_EQ(WaitForSingleObject(m_process.get(), 30000), WAIT_OBJECT_0);
    }

private:
    KernelHandle m_process;
    DWORD m_id = 0;
};

/// A server that this program does not answer with, but sees who came.
class PortOwnersOnLinux : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        WSADATA data;
        ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    }
    static void TearDownTestSuite() { WSACleanup(); }

    PortOwnersOnLinux()
    {
        EXPECT_EQ(listen(m_listener.get(), SOMAXCONN), 0);
        test::clearBenchFolder();
    }
    ~PortOwnersOnLinux() override { test::clearBenchFolder(); }

    /// The next client's port; 0 if none comes.
    std::uint16_t accept()
    {
        fd_set waiting{};
        FD_SET(m_listener.get(), &waiting);
        timeval patience{30, 0};
        if (select(0, &waiting, nullptr, nullptr, &patience) != 1)
            return 0;
        sockaddr_in remote{};
        int size = sizeof(remote);
        m_accepted.emplace_back(::accept(m_listener.get(), reinterpret_cast<sockaddr *>(&remote), &size));
        return ntohs(remote.sin_port);
    }

    std::uint32_t ownerPid(std::uint16_t client) const
    {
        return PortOwnerLookup::tcpOwnerPid(client, loopback, m_port);
    }
    std::wstring owner(std::uint16_t client) const { return PortOwnerLookup::tcpOwner(client, loopback, m_port); }

    /// A command of Linux: `bash`, or a copy of it, that connects and waits until the connection ends.
    std::string connectingShell(const std::string &bash = "bash") const
    {
        return "exec " + bash + " -c 'exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(m_port) + "; read -u 3 line'";
    }

    /// The path of a program of Linux as Windows programs see it.
    static std::wstring windowsPath(const std::string &path)
    {
        std::wstring result = L"Z:" + std::filesystem::path(path).wstring();
        std::ranges::replace(result, L'/', L'\\');
        return result;
    }

    const Socket m_listener = boundSocket(SOCK_STREAM);
    const std::uint16_t m_port = localPort(m_listener);
    std::vector<Socket> m_accepted;
};

TEST_F(PortOwnersOnLinux, tellThisProgramsOwnConnections)
{
    const Socket client = connectTo(m_port);
    const std::uint16_t port = localPort(client);
    EXPECT_EQ(accept(), port);
    EXPECT_EQ(ownerPid(port), GetCurrentProcessId());
    EXPECT_EQ(owner(port), PortOwnerLookup::processImage(GetCurrentProcessId()));
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(m_port, 0, 0), GetCurrentProcessId()); // the listener
}

TEST_F(PortOwnersOnLinux, tellThisProgramsOwnUdpSockets)
{
    const Socket socket = boundSocket(SOCK_DGRAM);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid(localPort(socket)), GetCurrentProcessId());
}

TEST_F(PortOwnersOnLinux, tellASocketThatWasNeverBoundByTheProgramOnceItIsUsed)
{
    const Socket socket = makeSocket(SOCK_DGRAM);
    const sockaddr_in somewhere = endpoint(9);
    EXPECT_EQ(sendto(socket.get(), "x", 1, 0, reinterpret_cast<const sockaddr *>(&somewhere), sizeof(somewhere)), 1);
    EXPECT_EQ(PortOwnerLookup::udpOwner(localPort(socket)), PortOwnerLookup::processImage(GetCurrentProcessId()));
}

TEST_F(PortOwnersOnLinux, tellProgramsOfLinuxByTheirFilesNames)
{
    const std::string folder = linuxOutput("mktemp -d -p /tmp | tr -d '\\n'");
    ASSERT_THAT(folder, StartsWith("/"));
    for (const char *name : {"browser", "mail"}) {
        const std::string program = folder + '/' + name;
        const test::LinuxCommand client("cp /bin/bash " + program + " && " + connectingShell(program));
        const std::uint16_t port = accept();
        ASSERT_NE(port, 0);
        EXPECT_EQ(owner(port), windowsPath(program));
        m_accepted.clear();
    }
    linuxOutput("rm -r " + folder);
}

TEST_F(PortOwnersOnLinux, areThoseWhoOpenedASocketNotThoseWhoInheritedIt)
{
    // dash tells that it is there, and bash waits for it.
    const test::LinuxCommand client("exec bash -c 'exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(m_port)
                                    + "; sh -c \"echo here; read line\" <&3 >&3; true'");
    const std::uint16_t port = accept();
    char text[8];
    ASSERT_GT(recv(m_accepted.back().get(), text, sizeof(text), 0), 0);
    EXPECT_THAT(owner(port), EndsWith(L"\\bash"));
}

TEST_F(PortOwnersOnLinux, tellOtherProgramsOfWindowsByTheirFilesNames)
{
    for (const wchar_t *name : {L"shop.exe", L"Game Center.exe"}) {
        const std::filesystem::path program = test::programFolder() / name;
        ASSERT_TRUE(CopyFileW(L"" RUVOD_NETCLIENT, program.c_str(), FALSE)) << GetLastError();
        // It has sent nothing yet: its socket is the Wine server's alone.
        WindowsProgram client(program, L"tcp 127.0.0.1 " + std::to_wstring(m_port) + L" rest");
        const std::uint16_t port = accept();
        ASSERT_NE(port, 0);
        EXPECT_EQ(owner(port), PortOwnerLookup::processImage(client.id()));
        EXPECT_THAT(owner(port), EndsWith(name));
    }
}

TEST_F(PortOwnersOnLinux, knowNothingOfAnOwnerThatHasEndedMeanwhile)
{
    const std::filesystem::path program = test::programFolder() / "short.exe";
    ASSERT_TRUE(CopyFileW(L"" RUVOD_NETCLIENT, program.c_str(), FALSE)) << GetLastError();
    WindowsProgram client(program, L"tcp 127.0.0.1 " + std::to_wstring(m_port) + L" rest");
    const std::uint16_t port = accept();
    const std::uint32_t pid = ownerPid(port);
    ASSERT_NE(pid, 0u);
    client.end();
    EXPECT_EQ(PortOwnerLookup::processImage(pid), L"[PID:" + std::to_wstring(pid) + L"]");
    m_accepted.clear();
    EXPECT_TRUE(test::waitUntil([&] { return owner(port).empty(); }));
}

TEST_F(PortOwnersOnLinux, mayNotBeOpenedToBeEndedWhenTheyAreProgramsOfLinux)
{
    const test::LinuxCommand client(connectingShell());
    const std::uint32_t pid = ownerPid(accept());
    EXPECT_NE(pid, 0u);
    EXPECT_EQ(OpenProcess(PROCESS_TERMINATE, FALSE, pid), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
}

TEST_F(PortOwnersOnLinux, areNotToldOfConnectionsThatAreOverOrNeverWere)
{
    Socket client = connectTo(m_port);
    const std::uint16_t port = localPort(client);
    accept();
    EXPECT_EQ(PortOwnerLookup::tcpOwner(port, loopback, static_cast<std::uint16_t>(m_port + 1)), L"");
    EXPECT_EQ(PortOwnerLookup::tcpOwner(port, loopback + 1, m_port), L"");
    client.reset();
    m_accepted.clear();
    EXPECT_TRUE(test::waitUntil([&] { return owner(port).empty(); }));
}

TEST_F(PortOwnersOnLinux, areNobodyWhenATestHasPlannedIt)
{
    const Socket socket = boundSocket(SOCK_DGRAM);
    const auto ownUdp = [&] { return PortOwnerLookup::udpOwnerPid(localPort(socket)); };
    const auto ownTcp = [&] { return PortOwnerLookup::tcpOwnerPid(m_port, 0, 0); };
    test::writeBenchFile("faults.txt", "GetExtendedTcpTable * 31\nGetExtendedUdpTable * 31\n");
    EXPECT_EQ(ownTcp(), 0u);
    EXPECT_EQ(ownUdp(), 0u);
    EXPECT_FALSE(test::journal("\"call\":\"GetExtendedTcpTable\",\"result\":false,\"error\":31").empty());
    // Plans of the same length, faster than the file system's clock ticks: each has to be seen.
    for (int error = 40; error < 90; ++error) {
        test::writeBenchFile("faults.txt", "GetExtendedTcpTable * " + std::to_string(error) + '\n');
        EXPECT_EQ(ownTcp(), 0u);
    }
    for (int error = 40; error < 90; ++error) {
        const std::string call =
            "\"call\":\"GetExtendedTcpTable\",\"result\":false,\"error\":" + std::to_string(error);
        EXPECT_EQ(test::journal(call).size(), 2u) << error << ": the tables of both families";
    }
    test::writeBenchFile("faults.txt", "");
    EXPECT_NE(ownTcp(), 0u);
    EXPECT_NE(ownUdp(), 0u);
}

/// A figure, not a requirement: what the look-ups cost that a tunnel makes for each connection.
TEST_F(PortOwnersOnLinux, areToldInTimeWithManyConnections)
{
    constexpr int connections = 400;
    constexpr int rounds = 200;
    std::vector<Socket> own;
    while (own.size() < connections) {
        own.push_back(connectTo(m_port));
        ASSERT_NE(accept(), 0);
    }
    const auto measure = [&](const char *what, auto lookUp) {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < rounds; ++i)
            lookUp();
        const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - start;
        std::printf("%s with %d connections: %.0f us\n", what, connections, time.count() / rounds);
    };
    const std::uint16_t last = localPort(own.back());
    measure("the id of a connection's owner", [&] { EXPECT_EQ(ownerPid(last), GetCurrentProcessId()); });

    const test::LinuxCommand linuxClient(connectingShell());
    const std::uint16_t linuxPort = accept();
    measure("the name of a program of Linux", [&] { EXPECT_THAT(owner(linuxPort), EndsWith(L"\\bash")); });

    const std::filesystem::path program = test::programFolder() / "timed.exe";
    ASSERT_TRUE(CopyFileW(L"" RUVOD_NETCLIENT, program.c_str(), FALSE)) << GetLastError();
    WindowsProgram client(program, L"tcp 127.0.0.1 " + std::to_wstring(m_port) + L" rest");
    const std::uint16_t windowsPort = accept();
    measure("the name of another program of Windows",
            [&] { EXPECT_THAT(owner(windowsPort), EndsWith(L"timed.exe")); });
}

} // namespace
} // namespace ruvo
