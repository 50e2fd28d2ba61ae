// Who holds what while a call is in flight, and after it was done at once or refused.

#include "windows/io/completion_port_fixture.h"

#include <vector>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using Outcome = CompletionPort::Outcome;
using State = CompletionPort::Issued::State;

class CompletionPortIssueTest : public CompletionPortTest
{
protected:
    /// Bytes that a receive finds there already.
    void answerBefore(const char *text)
    {
        answer(text);
        char byte = 0;
        ASSERT_EQ(recv(m_record->socket.get(), &byte, 1, MSG_PEEK), 1);
    }
    /// The record belongs to the test alone.
    void expectGivenBack()
    {
        EXPECT_EQ(m_record.use_count(), 1);
        EXPECT_EQ(m_port.inFlight(), 0);
        EXPECT_EQ(m_port.runOne(20ms), Outcome::Nothing);
        EXPECT_EQ(m_record->receive.completions, 0);
    }
};

TEST_F(CompletionPortIssueTest, holdsTheRecordWhileTheCallIsInFlight)
{
    EXPECT_EQ(receive().state, State::InFlight);
    EXPECT_EQ(m_record.use_count(), 2);
    EXPECT_EQ(m_port.inFlight(), 1);
    answer("hello");
    EXPECT_EQ(m_port.runOne(10s), Outcome::Completed);
    EXPECT_EQ(m_record->receive.completions, 1);
    EXPECT_EQ(m_record->receive.bytes, 5u);
    EXPECT_EQ(m_record.use_count(), 1);
    EXPECT_EQ(m_port.inFlight(), 0);
}

TEST_F(CompletionPortIssueTest, givesTheRecordBackWhenItsSocketSkipsThePort)
{
    ASSERT_TRUE(skipPortOnSuccess(m_record->socket.get()));
    answerBefore("hello");
    const CompletionPort::Issued issued = receive(true);
    EXPECT_EQ(issued.state, State::Done);
    EXPECT_EQ(issued.bytes, 5u);
    EXPECT_EQ(std::string(m_record->buffer, 5), "hello");
    expectGivenBack();
}

TEST_F(CompletionPortIssueTest, waitsForThePortWhereASocketThatSkipsItHasNothingYet)
{
    ASSERT_TRUE(skipPortOnSuccess(m_record->socket.get()));
    EXPECT_EQ(receive(true).state, State::InFlight);
    EXPECT_EQ(m_record.use_count(), 2);
    answer("hello");
    EXPECT_EQ(m_port.runOne(10s), Outcome::Completed);
    EXPECT_EQ(m_record->receive.bytes, 5u);
    EXPECT_EQ(m_record.use_count(), 1);
}

TEST_F(CompletionPortIssueTest, leavesWhatIsDoneAtOnceToThePortWithoutSkippingIt)
{
    answerBefore("hello");
    EXPECT_EQ(receive().state, State::InFlight);
    EXPECT_EQ(m_record.use_count(), 2);
    EXPECT_EQ(m_port.inFlight(), 1);
    EXPECT_EQ(m_record->receive.completions, 0);
    EXPECT_EQ(m_port.runOne(10s), Outcome::Completed);
    EXPECT_EQ(m_record->receive.completions, 1);
    EXPECT_EQ(m_record->receive.bytes, 5u);
    EXPECT_EQ(m_record.use_count(), 1);
    EXPECT_EQ(m_port.inFlight(), 0);
}

TEST_F(CompletionPortIssueTest, givesTheRecordOfARefusedCallBack)
{
    m_record->socket.reset();
    const CompletionPort::Issued issued = receive();
    EXPECT_EQ(issued.state, State::Failed);
    EXPECT_EQ(issued.error, WSAENOTSOCK);
    expectGivenBack();
}

TEST_F(CompletionPortIssueTest, letsAHandlerIssueTheSameOperationAgain)
{
    m_record->receive.onCompletion = [this] {
        if (m_record->receive.completions < 3)
            postReceive();
    };
    postReceive();
    for (int i = 1; i <= 3; ++i) {
        answer("x");
        EXPECT_EQ(m_port.runOne(10s), Outcome::Completed);
        EXPECT_EQ(m_record->receive.completions, i);
        EXPECT_EQ(m_port.inFlight(), i < 3 ? 1 : 0);
    }
    m_record->receive.onCompletion = nullptr;
    EXPECT_EQ(m_record.use_count(), 1);
}

// As a relay does: what is there is taken on the spot, until a receive has to wait.
TEST_F(CompletionPortIssueTest, letsAHandlerGoOnOnTheSpot)
{
    ASSERT_TRUE(skipPortOnSuccess(m_record->socket.get()));
    std::vector<State> states;
    m_record->receive.onCompletion = [&] {
        answerBefore("on the spot");
        for (int i = 0; i < 2; ++i) {
            states.push_back(receive(true).state);
            EXPECT_EQ(m_port.inFlight(), i == 0 ? 1 : 2) << "the handler that runs counts as well";
        }
        m_record->receive.onCompletion = nullptr;
    };
    EXPECT_EQ(receive(true).state, State::InFlight);
    answer("first");
    EXPECT_EQ(m_port.runOne(10s), Outcome::Completed);
    EXPECT_EQ(states, (std::vector{State::Done, State::InFlight}));
    EXPECT_EQ(m_port.inFlight(), 1);
    EXPECT_EQ(m_record.use_count(), 2);
    answer("last");
    EXPECT_EQ(m_port.runOne(10s), Outcome::Completed);
    EXPECT_EQ(m_record->receive.completions, 2);
    EXPECT_EQ(m_record->receive.bytes, 4u);
    EXPECT_EQ(m_record.use_count(), 1);
    EXPECT_EQ(m_port.inFlight(), 0);
}

TEST_F(CompletionPortIssueTest, completesWhatWasDoneAtOnceWhenItIsPosted)
{
    ASSERT_TRUE(m_port.post(m_record->receive, m_record, CompletionKey::RelayReceive, 7));
    EXPECT_EQ(m_record.use_count(), 2);
    EXPECT_EQ(m_port.inFlight(), 1);
    EXPECT_EQ(m_port.runOne(10s), Outcome::Completed);
    EXPECT_EQ(m_record->receive.bytes, 7u);
    EXPECT_EQ(m_record->receive.error, DWORD{NO_ERROR});
    EXPECT_EQ(m_record.use_count(), 1);
    EXPECT_EQ(m_port.inFlight(), 0);
}

TEST_F(CompletionPortIssueTest, givesTheRecordBackThatThePortDoesNotTake)
{
    CompletionPort closed;
    EXPECT_FALSE(closed.post(m_record->receive, m_record, CompletionKey::RelayReceive, 7));
    EXPECT_EQ(closed.inFlight(), 0);
    expectGivenBack();
}

/// A record whose operation calls its own function.
class Receiver : public std::enable_shared_from_this<Receiver>
{
public:
    void post(CompletionPort &port, DWORD bytes)
    {
        EXPECT_TRUE(port.post(m_operation, shared_from_this(), CompletionKey::RelayReceive, bytes));
    }
    std::vector<DWORD> received;

private:
    void onReceived(DWORD bytes, DWORD error)
    {
        EXPECT_EQ(error, DWORD{NO_ERROR});
        received.push_back(bytes);
    }
    MemberOperation<&Receiver::onReceived> m_operation{*this};
};

TEST_F(CompletionPortIssueTest, reachesTheMemberFunctionOfTheOwner)
{
    const auto one = std::make_shared<Receiver>();
    const auto other = std::make_shared<Receiver>();
    one->post(m_port, 1);
    other->post(m_port, 2);
    EXPECT_TRUE(m_port.drain(10s));
    EXPECT_EQ(one->received, std::vector<DWORD>{1});
    EXPECT_EQ(other->received, std::vector<DWORD>{2});
    EXPECT_EQ(one.use_count(), 1);
}

} // namespace
} // namespace ruvo::test
