#include "ipc/pipe_anchor.h"

#include "ipc/session_server.h"
#include "support/connected_pair.h"
#include "support/log_capture.h"
#include "support/pipe_client.h"
#include "support/wait_until.h"
#include "unit/ipc/communication_server_fixture.h"
#include "windows/ipc/created_pipes.h"
#include "windows/support/call_journal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>

namespace ruvo {
namespace {

using test::CreatedPipes;
using test::ImportRedirection;
using test::PipeClient;
using Name = PipeAnchor::Name;

constexpr DWORD duplex = PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED;

/// This process's account in its text form.
std::wstring ownAccount()
{
    KernelHandle token;
    alignas(TOKEN_USER) std::byte user[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD size = 0;
    LPWSTR text = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.out())
        || !GetTokenInformation(token.get(), TokenUser, user, sizeof(user), &size)
        || !ConvertSidToStringSidW(reinterpret_cast<const TOKEN_USER *>(user)->User.Sid, &text))
        return {};
    const LocalMemory owned(text);
    return text;
}

/// The text that a descriptor has which is made of `text`: well-known accounts get their short names.
std::wstring asDescriptor(const std::wstring &text)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1, &descriptor, nullptr))
        return L"no descriptor";
    const LocalMemory owned(descriptor);
    return test::accessText(descriptor);
}

/// Network logons nothing; this account everything; everybody reading and writing (0x12019f) without the making of
/// instances (4) and without WRITE_DAC.
std::wstring expectedList()
{
    const std::wstring account = ownAccount();
    return asDescriptor(L"O:" + account + L"D:P(D;;0x1f01ff;;;NU)(A;;0x1f01ff;;;" + account + L")(A;;0x12019b;;;WD)");
}

class PipeAnchorTest : public testing::Test
{
protected:
    /// What a client of the name gets: whether there is such a pipe, and one that waits for it.
    DWORD connecting() const
    {
        const FileHandle client(CreateFileW(name.toStdWString().c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                            OPEN_EXISTING, 0, nullptr));
        return client ? ERROR_SUCCESS : GetLastError();
    }

    const QString name = test::privatePipeName("anchor");
    PipeAnchor anchor;
};

TEST_F(PipeAnchorTest, hasTheListAndTheFlagOfTheFirstInstance)
{
    const CreatedPipes created;
    EXPECT_FALSE(anchor.isOpen());
    EXPECT_EQ(anchor.open(name, Name::unused), QString());
    EXPECT_TRUE(anchor.isOpen());

    ASSERT_EQ(created.calls.size(), 1u);
    const CreatedPipes::Call &call = created.calls[0];
    EXPECT_EQ(call.name, name.toStdWString());
    EXPECT_EQ(call.openMode, duplex | FILE_FLAG_FIRST_PIPE_INSTANCE);
    EXPECT_FALSE(call.isInherited);
    EXPECT_EQ(call.access, expectedList());
    EXPECT_NE(call.access.find(L"D:P(D;"), std::wstring::npos)
        << "inherited entries are kept off, denying comes first";
}

TEST_F(PipeAnchorTest, hasTheListWithoutTheFlagWhileClientsHoldInstances)
{
    const CreatedPipes created;
    EXPECT_EQ(anchor.open(name, Name::inUse), QString());
    ASSERT_EQ(created.calls.size(), 1u);
    EXPECT_EQ(created.calls[0].openMode, duplex);
    EXPECT_EQ(created.calls[0].access, expectedList());
}

TEST_F(PipeAnchorTest, holdsTheNameAndServesNobody)
{
    EXPECT_EQ(connecting(), DWORD{ERROR_FILE_NOT_FOUND});
    ASSERT_EQ(anchor.open(name, Name::unused), QString());
    EXPECT_EQ(connecting(), DWORD{ERROR_PIPE_BUSY});
    EXPECT_EQ(connecting(), DWORD{ERROR_PIPE_BUSY}) << "nor anybody later";
    anchor.close();
    EXPECT_FALSE(anchor.isOpen());
    EXPECT_EQ(connecting(), DWORD{ERROR_FILE_NOT_FOUND});
}

// Who opens the pipe between its making and the daemon's own end has an end that nobody would ever read.
TEST_F(PipeAnchorTest, cutsAStrangerOffWhoWasFaster)
{
    FileHandle stranger;
    const ImportRedirection<IMPORT(CreateFileW)> open([&](LPCWSTR path, DWORD access, DWORD share,
                                                          LPSECURITY_ATTRIBUTES attributes, DWORD disposition,
                                                          DWORD flags, HANDLE pattern) {
        const auto connect = [&] { return open.real(path, access, share, attributes, disposition, flags, pattern); };
        if (path == name.toStdWString() && !stranger)
            stranger.reset(connect());
        return connect();
    });
    EXPECT_EQ(anchor.open(name, Name::unused), QString());
    EXPECT_TRUE(anchor.isOpen());
    DWORD written = 0;
    EXPECT_FALSE(WriteFile(stranger.get(), "hello", 5, &written, nullptr));
    EXPECT_EQ(connecting(), DWORD{ERROR_PIPE_BUSY});
}

// The service is the one with the rights; whoever serves a pipe can act as its client.
TEST_F(PipeAnchorTest, lendsItsOwnIdentityToNobody)
{
    DWORD flags = 0;
    const ImportRedirection<IMPORT(CreateFileW)> open([&](auto... arguments) {
        flags = std::get<5>(std::tuple(arguments...));
        return open.real(arguments...);
    });
    ASSERT_EQ(anchor.open(name, Name::unused), QString());
    EXPECT_EQ(flags, DWORD{SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS});
}

TEST_F(PipeAnchorTest, leavesNothingBehindWhereAStepFails)
{
    test::CallJournal journal;
    journal.watch<IMPORT(OpenProcessToken)>();
    journal.watch<IMPORT(GetTokenInformation)>();
    journal.watch<IMPORT(ConvertSidToStringSidW)>();
    journal.watch<IMPORT(ConvertStringSecurityDescriptorToSecurityDescriptorW)>();
    journal.watch<IMPORT(CreateNamedPipeW)>(test::FailsWith::minusOne);
    journal.watch<IMPORT(DisconnectNamedPipe)>();
    QStringList functions;
    test::forEachFailure(journal, ERROR_NOT_ENOUGH_MEMORY, [&] {
        PipeAnchor attempt;
        const QString error = attempt.open(name, Name::unused);
        const std::string failed = journal.failed();
        EXPECT_EQ(error.isEmpty(), failed.empty()) << failed;
        EXPECT_EQ(attempt.isOpen(), failed.empty()) << failed;
        if (!failed.empty()) {
            functions.append(error.left(error.indexOf(':')));
            EXPECT_TRUE(error.endsWith(": " + qt_error_string(ERROR_NOT_ENOUGH_MEMORY))) << error.toStdString();
            EXPECT_EQ(connecting(), DWORD{ERROR_FILE_NOT_FOUND}) << failed;
        }
    });
    EXPECT_EQ(functions, (QStringList{"Account of the pipe", "Account of the pipe", "Account of the pipe",
                                      "Access list of the pipe", "CreateNamedPipeW", "DisconnectNamedPipe"}));
}

class AnchoredServerTest : public PipeAnchorTest
{
protected:
    test::LogCapture log;
    CreatedPipes created;
    SessionServer server{7, name};
};

// Windows refuses an instance that differs from the first one in how often there may be one and what its messages
// are.
TEST_F(AnchoredServerTest, hasAnAnchorBeforeTheFirstInstanceThatServes)
{
    ASSERT_TRUE(server.start());
    ASSERT_GT(created.calls.size(), 1u);
    EXPECT_TRUE(created.calls[0].isFirstOnly());
    EXPECT_EQ(created.calls[0].access, expectedList());
    for (std::size_t i = 1; i < created.calls.size(); ++i) {
        EXPECT_FALSE(created.calls[i].isFirstOnly());
        EXPECT_EQ(created.calls[i].name, created.calls[0].name);
        EXPECT_EQ(created.calls[i].pipeMode, created.calls[0].pipeMode);
        EXPECT_EQ(created.calls[i].instances, created.calls[0].instances);
        EXPECT_EQ(created.calls[i].timeout, created.calls[0].timeout);
    }
}

TEST_F(AnchoredServerTest, takesASomebodyElsesPipeForAnErrorAndTriesAgain)
{
    created.isTaken = true;
    EXPECT_FALSE(server.start());
    EXPECT_FALSE(server.server().isListening());
    EXPECT_EQ(created.calls.size(), 1u) << "no instance that serves is added to a stranger's pipe";
    EXPECT_EQ(log.lines(), QStringList{"WARNING Failed to start named pipe for session 7 : \"CreateNamedPipeW: "
                                       + qt_error_string(ERROR_ACCESS_DENIED) + '"'});
    created.isTaken = false;
    EXPECT_TRUE(server.start());
    EXPECT_EQ(log.linesWith("started for session 7").size(), 1);
}

TEST_F(AnchoredServerTest, keepsItsAnchorWhenItIsOpenedAgain)
{
    ASSERT_TRUE(server.start());
    server.server().close();
    EXPECT_EQ(connecting(), DWORD{ERROR_PIPE_BUSY}) << "the name is nobody else's meanwhile";
    created.calls.clear();
    EXPECT_TRUE(server.start());
    for (const CreatedPipes::Call &call : created.calls)
        EXPECT_FALSE(call.isFirstOnly());
}

TEST_F(AnchoredServerTest, servesAllWhoConnect)
{
    int connections = 0;
    QObject::connect(&server, &SessionServer::newConnection, [&connections, this] {
        ++connections;
        server.server().nextPendingConnection();
    });
    ASSERT_TRUE(server.start());
    // More than it has instances waiting at a time.
    std::deque<PipeClient> clients;
    for (int i = 0; i < 60; ++i) {
        clients.emplace_back(name);
        ASSERT_TRUE(clients.back().isConnected()) << i;
        EXPECT_TRUE(test::waitUntil([&] { return connections == i + 1; })) << i;
    }
}

class AnchoredPipesTest : public CommunicationServerTest
{
protected:
    /// Whether the pipe of session 1 was made with the flag, the last time that it was.
    bool wasFirstOnly() const { return std::ranges::any_of(created.calls, &CreatedPipes::Call::isFirstOnly); }
    void leaveAndComeBack()
    {
        sessions = {};
        server.pollSessions();
        settle();
        sessions = {1};
        created.calls.clear();
        server.pollSessions();
    }

    CreatedPipes created;
};

TEST_F(AnchoredPipesTest, areMadeAnewThatCannotBeReopened)
{
    server.start(serverName);
    server.findChild<SessionServer *>()->server().close();
    {
        const ImportRedirection<IMPORT(ConnectNamedPipe)> connect([](auto...) {
            SetLastError(ERROR_NO_DATA);
            return FALSE;
        });
        server.pollSessions();
        settle();
        EXPECT_TRUE(server.findChildren<SessionServer *>().isEmpty());
        EXPECT_FALSE(canConnect(1)) << "nothing is left of it";
    }
    server.pollSessions();
    EXPECT_NE(connectClient(1), nullptr);
}

// Windows would refuse the name to its own daemon for as long as such a client stays.
TEST_F(AnchoredPipesTest, servesAUserWhoIsBackWhileAClientHasStayed)
{
    server.start(serverName);
    EXPECT_TRUE(wasFirstOnly());
    const auto client = connectClient();
    ASSERT_NE(client, nullptr);
    leaveAndComeBack();
    EXPECT_FALSE(wasFirstOnly());
    EXPECT_NE(connectClient(), nullptr);
}

TEST_F(AnchoredPipesTest, trustsNobodysNameOnceNoClientIsLeft)
{
    sessions = {1, 2};
    server.start(serverName);
    const auto ofAnotherSession = connectClient(2);
    ASSERT_NE(ofAnotherSession, nullptr);
    {
        const auto client = connectClient(1);
        ASSERT_NE(client, nullptr);
    }
    ASSERT_TRUE(isSignalled("disconnected " + ids.last() + " session 1"));
    leaveAndComeBack();
    EXPECT_TRUE(wasFirstOnly());
}

} // namespace
} // namespace ruvo
