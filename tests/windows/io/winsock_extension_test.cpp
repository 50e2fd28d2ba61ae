#include "io/winsock_extension.h"

#include "windows/io/winsock_test.h"
#include "windows/support/call_journal.h"
#include "windows/support/child_process.h"

#include <chrono>

namespace ruvo::test {
namespace {

class WinsockExtension : public WinsockTest
{};

void startWinsock()
{
    WSADATA data;
    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
}

Socket newSocket()
{
    return Socket(WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED));
}

TEST_IN_OWN_PROCESS(WinsockExtensionInAFreshProcess, isAskedForOnce)
{
    startWinsock();
    CallJournal journal;
    journal.watch<IMPORT(WSAIoctl)>(FailsWith::minusOne);
    const Socket one = newSocket();
    const LPFN_CONNECTEX function = connectExPointer(one.get());
    EXPECT_TRUE(function);
    EXPECT_EQ(connectExPointer(newSocket().get()), function);
    ASSERT_EQ(journal.lines().size(), 1u);
    EXPECT_NE(journal.lines()[0].find(", 0xc8000006, "), std::string::npos) // SIO_GET_EXTENSION_FUNCTION_POINTER
        << journal.lines()[0];
}

TEST_IN_OWN_PROCESS(WinsockExtensionInAFreshProcess, isAskedForAgainAfterAFailure)
{
    startWinsock();
    CallJournal journal;
    journal.watch<IMPORT(WSAIoctl)>(FailsWith::minusOne);
    const Socket socket = newSocket();
    journal.fail("WSAIoctl", WSAEOPNOTSUPP, 1);
    EXPECT_EQ(connectExPointer(socket.get()), nullptr);
    EXPECT_EQ(WSAGetLastError(), WSAEOPNOTSUPP);
    EXPECT_NE(connectExPointer(socket.get()), nullptr);
}

TEST_IN_OWN_PROCESS(WinsockExtensionInAFreshProcess, isNotMistakenForAnother)
{
    startWinsock();
    const Socket socket = newSocket();
    const auto connectEx = reinterpret_cast<void *>(connectExPointer(socket.get()));
    const auto acceptEx = reinterpret_cast<void *>(acceptExPointer(socket.get()));
    const auto addresses = reinterpret_cast<void *>(acceptExAddressesPointer(socket.get()));
    EXPECT_TRUE(connectEx && acceptEx && addresses);
    EXPECT_NE(connectEx, acceptEx);
    EXPECT_NE(connectEx, addresses);
    EXPECT_NE(acceptEx, addresses);
}

TEST_F(WinsockExtension, connectsASocketThatIsBound)
{
    const Socket listener = listeningSocket();
    const Socket client = newSocket();
    const sockaddr_in any = loopbackAddress(0);
    ASSERT_EQ(bind(client.get(), reinterpret_cast<const sockaddr *>(&any), sizeof(any)), 0);
    const LPFN_CONNECTEX connectEx = connectExPointer(client.get());
    ASSERT_TRUE(connectEx);
    const KernelHandle done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    OVERLAPPED overlapped{};
    overlapped.hEvent = done.get();
    const sockaddr_in peer = boundTo(listener.get());
    const BOOL connected = connectEx(client.get(), reinterpret_cast<const sockaddr *>(&peer), sizeof(peer), nullptr,
                                     0, nullptr, &overlapped);
    ASSERT_TRUE(connected || WSAGetLastError() == ERROR_IO_PENDING) << WSAGetLastError();
    ASSERT_EQ(WaitForSingleObject(done.get(), 10000), WAIT_OBJECT_0);
    const Socket accepted(accept(listener.get(), nullptr, nullptr));
    EXPECT_TRUE(accepted);
    EXPECT_EQ(setsockopt(client.get(), SOL_SOCKET, SO_UPDATE_CONNECT_CONTEXT, nullptr, 0), 0);
    EXPECT_EQ(send(client.get(), "x", 1, 0), 1);
}

} // namespace
} // namespace ruvo::test
