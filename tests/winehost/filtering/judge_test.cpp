#include "filtering/app_id.h"
#include "filtering/filtering_test.h"
#include "namespace/linux_command.h"

#include "common/windows_handles.h"

#include <gmock/gmock.h>

#include <mswsock.h>

#include <fstream>

namespace ruvo::test {

using ::testing::HasSubstr;

namespace {

/// A listener and a receiver of datagrams on the same free port of 127.0.0.1, and filters about that port.
class JudgeTest : public FilteringTest
{
protected:
    void SetUp() override
    {
        FilteringTest::SetUp();
        m_engine = open();
        ASSERT_EQ(addSublayer(m_engine), DWORD{NO_ERROR});
        m_address.sin_family = AF_INET;
        m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int size = sizeof m_address;
        ASSERT_EQ(bind(m_listener.get(), generic(), size), 0);
        ASSERT_EQ(listen(m_listener.get(), 50), 0);
        getsockname(m_listener.get(), reinterpret_cast<sockaddr *>(&m_address), &size);
        ASSERT_EQ(bind(m_receiver.get(), generic(), size), 0);
    }

    const sockaddr *generic() const { return reinterpret_cast<const sockaddr *>(&m_address); }
    UINT16 port() const { return ntohs(m_address.sin_port); }

    /// Blocks connections to the port: of one program, or of all.
    UINT64 block(const std::wstring &program = {}, std::string_view layer = "connect-v4")
    {
        std::wstring id = program.empty() ? L"" : winehost::appIdOf(program.c_str()).value();
        FWP_BYTE_BLOB blob{static_cast<UINT32>((id.size() + 1) * sizeof(wchar_t)),
                           reinterpret_cast<UINT8 *>(id.data())};
        FWPM_FILTER_CONDITION0 conditions[] = {remotePort(port()), condition("app-id", FWP_BYTE_BLOB_TYPE)};
        conditions[1].conditionValue.byteBlob = &blob;
        FWPM_FILTER0 filter = filterAt(layer);
        filter.numFilterConditions = program.empty() ? 1 : 2;
        filter.filterCondition = conditions;
        UINT64 added = 0;
        EXPECT_EQ(FwpmFilterAdd0(m_engine, &filter, nullptr, &added), DWORD{NO_ERROR});
        return added;
    }

    void unblock(UINT64 id) { EXPECT_EQ(FwpmFilterDeleteById0(m_engine, id), DWORD{NO_ERROR}); }

    static std::wstring ownPath()
    {
        wchar_t path[1024] = {};
        GetModuleFileNameW(nullptr, path, 1024);
        return path;
    }

    /// The error of a call that returns 0 for success.
    static int errorOf(int result) { return result == 0 ? 0 : WSAGetLastError(); }

    int connectError(int type = SOCK_STREAM) const
    {
        const Socket socket(::socket(AF_INET, type, 0));
        return errorOf(connect(socket.get(), generic(), sizeof m_address));
    }

    int sendError(SOCKET socket) const
    {
        return errorOf(sendto(socket, "x", 1, 0, generic(), sizeof m_address) == 1 ? 0 : SOCKET_ERROR);
    }

    int sendPartsError(SOCKET socket) const
    {
        char byte = 'x';
        WSABUF part{1, &byte};
        DWORD sent = 0;
        return errorOf(WSASendTo(socket, &part, 1, &sent, 0, generic(), sizeof m_address, nullptr, nullptr));
    }

    /// 0 for a connection that was begun.
    int connectExError() const
    {
        const Socket socket(WSASocketW(AF_INET, SOCK_STREAM, 0, nullptr, 0, WSA_FLAG_OVERLAPPED));
        sockaddr_in any{};
        any.sin_family = AF_INET;
        EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
        GUID id = WSAID_CONNECTEX;
        LPFN_CONNECTEX connectEx = nullptr;
        DWORD size = 0;
        EXPECT_EQ(WSAIoctl(socket.get(), SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof id, &connectEx,
                           sizeof connectEx, &size, nullptr, nullptr),
                  0);
        const KernelHandle done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        OVERLAPPED overlapped{};
        overlapped.hEvent = done.get();
        if (connectEx(socket.get(), generic(), sizeof m_address, nullptr, 0, &size, &overlapped))
            return 0;
        const int error = WSAGetLastError();
        if (error != WSA_IO_PENDING)
            return error;
        EXPECT_EQ(WaitForSingleObject(done.get(), 10000), WAIT_OBJECT_0);
        return 0;
    }

    /// What a copy of netclient.exe prints that tries to reach the port.
    std::string tried(const std::filesystem::path &program, const char *protocol,
                      const wchar_t *address = L"127.0.0.1") const
    {
        SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
        const std::filesystem::path path = programFolder() / "netclient.txt";
        {
            const FileHandle output(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                                &inherited, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
            STARTUPINFOW startup{};
            startup.cb = sizeof startup;
            startup.dwFlags = STARTF_USESTDHANDLES;
            startup.hStdOutput = output.get();
            startup.hStdError = output.get();
            std::wstring line = L"netclient " + std::filesystem::path(protocol).wstring() + L" " + address + L" "
                                + std::to_wstring(port());
            PROCESS_INFORMATION information{};
            EXPECT_TRUE(CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                       &startup, &information));
            const KernelHandle process(information.hProcess);
            const KernelHandle thread(information.hThread);
            EXPECT_EQ(WaitForSingleObject(process.get(), 30000), WAIT_OBJECT_0);
        }
        std::ifstream file(path);
        std::string first;
        std::getline(file, first);
        return first;
    }

    static std::filesystem::path copyOfNetclient(const std::filesystem::path &path)
    {
        std::filesystem::create_directories(path.parent_path());
        EXPECT_TRUE(CopyFileW(L"" RUVOD_NETCLIENT, path.c_str(), FALSE)) << GetLastError();
        return path;
    }

    HANDLE m_engine = nullptr;
    Socket m_listener{::socket(AF_INET, SOCK_STREAM, 0)};
    Socket m_receiver{::socket(AF_INET, SOCK_DGRAM, 0)};
    sockaddr_in m_address{};
};

constexpr char blocked[] = R"("error":10013)";
constexpr char connected[] = R"("event":"connected")";

} // namespace

TEST_F(JudgeTest, whatAFilterBlocksFailsAsOnWindows)
{
    const Socket sender(::socket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_EQ(connectError(), 0);
    EXPECT_EQ(connectError(SOCK_DGRAM), 0);
    EXPECT_EQ(connectExError(), 0);
    EXPECT_EQ(sendError(sender.get()), 0);
    EXPECT_EQ(sendPartsError(sender.get()), 0);

    const UINT64 id = block();
    EXPECT_EQ(connectError(), WSAEACCES);
    EXPECT_EQ(connectError(SOCK_DGRAM), WSAEACCES);
    EXPECT_EQ(connectExError(), WSAEACCES);
    EXPECT_EQ(sendError(sender.get()), WSAEACCES);
    EXPECT_EQ(sendPartsError(sender.get()), WSAEACCES);
    const std::string where = R"("blocked":true,"remote":"127.0.0.1","port":)" + std::to_string(port());
    EXPECT_EQ(journal(where).size(), 3U);

    unblock(id);
    EXPECT_EQ(connectError(), 0);
    EXPECT_EQ(connectExError(), 0);
    EXPECT_EQ(sendError(sender.get()), 0);
    EXPECT_EQ(sendPartsError(sender.get()), 0);
}

TEST_F(JudgeTest, aBoundSocketIsJudgedByWhatItWasBoundTo)
{
    const auto boundSender = [](const char *address) {
        Socket made(WSASocketW(AF_INET, SOCK_DGRAM, 0, nullptr, 0, WSA_FLAG_OVERLAPPED));
        sockaddr_in local{};
        local.sin_family = AF_INET;
        inet_pton(AF_INET, address, &local.sin_addr);
        EXPECT_EQ(bind(made.get(), reinterpret_cast<const sockaddr *>(&local), sizeof local), 0);
        return made;
    };
    const UINT64 id = block();
    {
        const Socket sender = boundSender("127.0.0.1");
        EXPECT_EQ(sendError(sender.get()), WSAEACCES);
        EXPECT_EQ(sendPartsError(sender.get()), WSAEACCES);
        unblock(id);
        EXPECT_EQ(sendError(sender.get()), 0);
        EXPECT_EQ(sendPartsError(sender.get()), 0);
    }
    block();
    const Socket unbound(WSASocketW(AF_INET, SOCK_DGRAM, 0, nullptr, 0, WSA_FLAG_OVERLAPPED)); // perhaps its handle
    EXPECT_EQ(sendError(unbound.get()), WSAEACCES);
}

TEST_F(JudgeTest, filtersOfOtherProgramsLayersAndPortsDoNotMatter)
{
    block(L"C:\\windows\\system32\\ntdll.dll");
    block({}, "connect-v6");
    block({}, "accept-v4");
    m_address.sin_port = htons(static_cast<u_short>(port() ^ 1));
    block();
    m_address.sin_port = htons(static_cast<u_short>(port() ^ 1));
    EXPECT_EQ(connectError(), 0);
    block(ownPath());
    EXPECT_EQ(connectError(), WSAEACCES);
}

TEST_F(JudgeTest, whatASessionBlocksPassesOnceItIsClosed)
{
    block();
    EXPECT_EQ(connectError(), WSAEACCES);
    EXPECT_EQ(FwpmEngineClose0(m_engine), DWORD{NO_ERROR});
    EXPECT_EQ(connectError(), 0);
}

TEST_F(JudgeTest, aSocketThatIsToldItsInterfaceIsJudgedByThat)
{
    const auto leavesBy = [this](DWORD index) {
        const Socket socket(::socket(AF_INET, SOCK_STREAM, 0));
        const DWORD option = htonl(index);
        if (index != 0) {
            EXPECT_EQ(setsockopt(socket.get(), IPPROTO_IP, IP_UNICAST_IF, reinterpret_cast<const char *>(&option),
                                 sizeof option),
                      0);
        }
        u_long on = 1;
        ioctlsocket(socket.get(), static_cast<long>(FIONBIO), &on);
        return errorOf(connect(socket.get(), generic(), sizeof m_address));
    };
    linuxOutput("ip neighbour replace 192.0.2.9 lladdr 02:00:00:00:00:01 dev uplink");
    const DWORD uplink = std::stoul(linuxOutput("ip -o link show dev uplink"));
    m_address.sin_addr.s_addr = htonl(0xC0000209);
    FWPM_FILTER_CONDITION0 index = condition("interface-index", FWP_UINT32);
    index.conditionValue.uint32 = uplink;
    FWPM_FILTER0 filter = filterAt("connect-v4");
    filter.numFilterConditions = 1;
    filter.filterCondition = &index;
    ASSERT_EQ(FwpmFilterAdd0(m_engine, &filter, nullptr, nullptr), DWORD{NO_ERROR});
    EXPECT_EQ(leavesBy(0), WSAEACCES);
    EXPECT_EQ(leavesBy(uplink), WSAEACCES);
    const DWORD otherEnd = std::stoul(linuxOutput("ip -o link show dev far"));
    EXPECT_EQ(leavesBy(otherEnd), WSAEWOULDBLOCK);
    linuxOutput("ip neighbour delete 192.0.2.9 dev uplink");
}

TEST_F(JudgeTest, anotherProgramIsWhereItsFileLies)
{
    const std::filesystem::path app = copyOfNetclient(programFolder() / "Ruvo.exe");
    const std::filesystem::path other = copyOfNetclient(programFolder() / "elsewhere" / "Ruvo.exe");
    EXPECT_THAT(tried(app, "tcp"), HasSubstr(connected));
    block(app.wstring());
    EXPECT_THAT(tried(app, "tcp"), HasSubstr(std::string(R"("event":"failed","call":"connect",)") + blocked));
    EXPECT_THAT(tried(other, "tcp"), HasSubstr(connected));
    EXPECT_EQ(connectError(), 0);

    FWPM_FILTER_CONDITION0 condition = remotePort(port());
    FWPM_FILTER0 all = filterAt("connect-v4");
    all.numFilterConditions = 1;
    all.filterCondition = &condition;
    all.weight.uint8 = 9;
    EXPECT_EQ(FwpmFilterAdd0(m_engine, &all, nullptr, nullptr), DWORD{NO_ERROR});
    EXPECT_THAT(tried(other, "tcp"), HasSubstr(blocked));
}

TEST_F(JudgeTest, ipv6HasLayersOfItsOwn)
{
    ASSERT_EQ(linuxOutput("sysctl -qw net.ipv6.conf.lo.disable_ipv6=0"), "");
    const Socket listener(::socket(AF_INET6, SOCK_STREAM, 0));
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = IN6ADDR_LOOPBACK_INIT;
    address.sin6_port = m_address.sin_port;
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener.get(), 5), 0);

    const std::filesystem::path program = copyOfNetclient(programFolder() / "elsewhere" / "six.exe");
    block();
    EXPECT_THAT(tried(program, "tcp", L"::1"), HasSubstr(R"("local":"[::1]:)"));
    block({}, "connect-v6");
    EXPECT_THAT(tried(program, "tcp", L"::1"), HasSubstr(blocked));
    linuxOutput("sysctl -qw net.ipv6.conf.lo.disable_ipv6=1");
}

} // namespace ruvo::test
