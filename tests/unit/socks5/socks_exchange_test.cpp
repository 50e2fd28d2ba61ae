#include "socks5/socks_exchange.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace ruvo::socks5 {
namespace {

using State = SocksExchange::State;

constexpr Endpoint web{0x5DB8D822, 443}; // 93.184.216.34

Bytes bytes(std::initializer_list<int> values)
{
    Bytes result;
    for (const int value : values)
        result.push_back(static_cast<std::uint8_t>(value));
    return result;
}

const Bytes accepted = bytes({5, 0});
const Bytes connected = bytes({5, 0, 0, 1, 127, 0, 0, 1, 0x12, 0x34});

/// A socket with `stream` to read from; it writes down what is sent and how much was asked for at a time.
struct Wire
{
    Bytes stream;
    std::size_t pieceSize = 4096; // at most so many bytes go at a time, either way
    Bytes sent = {};
    std::size_t read = 0;
    std::vector<std::size_t> asked = {};

    void send(SocksExchange &exchange)
    {
        const ByteView next = exchange.toSend();
        const std::size_t count = std::min(pieceSize, next.size());
        sent.insert(sent.end(), next.begin(), next.begin() + static_cast<std::ptrdiff_t>(count));
        exchange.sent(count);
    }
    void receive(SocksExchange &exchange)
    {
        const std::span<std::uint8_t> room = exchange.room();
        asked.push_back(room.size());
        const std::size_t count = std::min({pieceSize, room.size(), stream.size() - read});
        std::copy_n(stream.begin() + static_cast<std::ptrdiff_t>(read), count, room.begin());
        read += count;
        exchange.received(count);
    }
    /// Until it is over one way or the other.
    void drive(SocksExchange &exchange)
    {
        for (;;) {
            switch (exchange.state()) {
            case State::Sends: send(exchange); break;
            case State::Receives: receive(exchange); break;
            case State::Succeeded:
            case State::Failed: return;
            }
        }
    }
};

Bytes operator+(Bytes left, const Bytes &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

SocksExchange exchangeFor(const SocksRequest &request)
{
    return SocksExchange(requestBytes(request).value());
}

/// What becomes of a proxy that says all this and then closes.
SocksExchange after(const Bytes &stream, const SocksRequest &request = web)
{
    SocksExchange exchange = exchangeFor(request);
    Wire{.stream = stream}.drive(exchange);
    return exchange;
}

void expectFailure(const SocksExchange &exchange, ExchangeStep step, bool isCutOff, const Bytes &came)
{
    ASSERT_EQ(exchange.state(), State::Failed);
    EXPECT_EQ(exchange.failure().step, step);
    EXPECT_EQ(exchange.failure().isCutOff, isCutOff);
    EXPECT_EQ(exchange.failure().bytes, came);
}

TEST(SocksExchange, greetsAsksAndSucceeds)
{
    SocksExchange exchange = exchangeFor(web);
    Wire wire{.stream = accepted + connected};
    wire.drive(exchange);
    EXPECT_EQ(exchange.state(), State::Succeeded);
    EXPECT_EQ(wire.sent, bytes({5, 1, 0, 5, 1, 0, 1, 93, 184, 216, 34, 0x01, 0xBB}));
    EXPECT_TRUE(exchange.toSend().empty());
    EXPECT_TRUE(exchange.room().empty());
}

TEST(SocksExchange, goesThroughItsStepsInOrder)
{
    SocksExchange exchange = exchangeFor(web);
    Wire wire{.stream = accepted + connected};
    EXPECT_EQ(exchange.step(), ExchangeStep::Greeting);
    EXPECT_EQ(exchange.state(), State::Sends);
    wire.send(exchange);
    EXPECT_EQ(exchange.step(), ExchangeStep::MethodReply);
    EXPECT_EQ(exchange.state(), State::Receives);
    wire.receive(exchange);
    EXPECT_EQ(exchange.step(), ExchangeStep::Request);
    EXPECT_EQ(exchange.state(), State::Sends);
    wire.send(exchange);
    EXPECT_EQ(exchange.step(), ExchangeStep::Reply);
    EXPECT_EQ(exchange.state(), State::Receives);
    wire.receive(exchange);
    EXPECT_EQ(exchange.state(), State::Succeeded);
}

TEST(SocksExchange, sendsNoRequestBeforeTheMethodIsAccepted)
{
    SocksExchange exchange = exchangeFor(web);
    Wire wire{.stream = accepted};
    wire.send(exchange);
    EXPECT_TRUE(exchange.toSend().empty());
    EXPECT_EQ(wire.sent.size(), greeting.size());
}

TEST(SocksExchange, asksForTheStartOfAReplyAndThenForWhatItsAddressAdds)
{
    const Bytes ipv6Reply = bytes({5, 0, 0, 4}) + Bytes(18, 0xAB);
    SocksExchange exchange = exchangeFor(web);
    Wire wire{.stream = accepted + ipv6Reply};
    wire.drive(exchange);
    EXPECT_EQ(exchange.state(), State::Succeeded);
    EXPECT_EQ(wire.asked, (std::vector<std::size_t>{2, 10, 12}));
}

TEST(SocksExchange, leavesWhatFollowsTheReplyToTheStream)
{
    const Bytes nameReply = bytes({5, 0, 0, 3, 6}) + Bytes(6, 'x') + bytes({0, 80});
    for (const Bytes &reply : {connected, nameReply, bytes({5, 0, 0, 4}) + Bytes(18)}) {
        SocksExchange exchange = exchangeFor(web);
        Wire wire{.stream = accepted + reply + bytes({'S', 'S', 'H', '-', '2'})};
        wire.drive(exchange);
        EXPECT_EQ(exchange.state(), State::Succeeded);
        EXPECT_EQ(wire.read, 2 + reply.size());
    }
}

TEST(SocksExchange, goesOnAfterShortSendsAndReceives)
{
    const Bytes nameReply = bytes({5, 0, 0, 3, 255}) + Bytes(255, 'x') + bytes({0, 80});
    SocksExchange exchange = exchangeFor(NamedDestination{"example.com", 443});
    Wire wire{.stream = accepted + nameReply, .pieceSize = 1};
    wire.drive(exchange);
    EXPECT_EQ(exchange.state(), State::Succeeded);
    EXPECT_EQ(wire.sent, bytes({5, 1, 0}) + requestBytes(NamedDestination{"example.com", 443}).value());
    EXPECT_EQ(wire.read, 2u + 262u);
}

TEST(SocksExchange, tellsTheBoundAddress)
{
    EXPECT_EQ(after(accepted + connected).bound(), (Endpoint{0x7F000001, 0x1234}));
}

TEST(SocksExchange, tellsNoBoundAddressThatIsNotIpv4)
{
    const SocksExchange exchange = after(accepted + bytes({5, 0, 0, 4}) + Bytes(18));
    EXPECT_EQ(exchange.state(), State::Succeeded);
    EXPECT_EQ(exchange.bound(), std::nullopt);
}

TEST(SocksExchange, tellsNoBoundAddressOfAFailure)
{
    EXPECT_EQ(after(accepted + bytes({5, 1, 0, 1, 127, 0, 0, 1, 0, 80})).bound(), std::nullopt);
}

TEST(SocksExchange, failsOnAnyOtherMethodAndVersion)
{
    for (const Bytes &reply : {bytes({5, 0xFF}), bytes({5, 2}), bytes({4, 0}), bytes({0, 0})})
        expectFailure(after(reply), ExchangeStep::MethodReply, false, reply);
}

TEST(SocksExchange, failsWhenTheMethodReplyEndsEarly)
{
    expectFailure(after(bytes({5})), ExchangeStep::MethodReply, true, bytes({5}));
    expectFailure(after({}), ExchangeStep::MethodReply, true, {});
}

TEST(SocksExchange, failsWhenTheReplyEndsEarlyHoweverItBegins)
{
    const Bytes nine = bytes({5, 0, 0, 1, 127, 0, 0, 1, 0});
    expectFailure(after(accepted + nine), ExchangeStep::Reply, true, nine);
    expectFailure(after(accepted), ExchangeStep::Reply, true, {});
    const Bytes withoutRest = bytes({5, 0, 0, 4}) + Bytes(17);
    expectFailure(after(accepted + withoutRest), ExchangeStep::Reply, true, withoutRest);
}

TEST(SocksExchange, failsOnEveryReplyCodeButZeroOnceTenBytesAreThere)
{
    for (int code = 1; code <= 255; ++code) {
        const Bytes refused = bytes({5, code, 0, 4, 0, 0, 0, 0, 0, 0});
        const SocksExchange exchange = after(accepted + refused + Bytes(12));
        expectFailure(exchange, ExchangeStep::Reply, false, refused);
        EXPECT_EQ(exchange.failure().version(), 5);
        EXPECT_EQ(exchange.failure().code(), code);
    }
}

TEST(SocksExchange, failsOnAReplyOfAnotherVersion)
{
    const Bytes reply = bytes({4, 0, 0, 1, 0, 0, 0, 0, 0, 0});
    expectFailure(after(accepted + reply), ExchangeStep::Reply, false, reply);
}

TEST(SocksExchange, aFailureBeforeAnyAnswerHasNoCodes)
{
    const SocksFailure failure = after({}).failure();
    EXPECT_EQ(failure.version(), 0);
    EXPECT_EQ(failure.code(), 0);
}

TEST(SocksExchange, failsWhereItIsCutOff)
{
    SocksExchange exchange = exchangeFor(web);
    Wire wire{.stream = accepted + connected, .pieceSize = 3};
    for (const ExchangeStep step :
         {ExchangeStep::Greeting, ExchangeStep::MethodReply, ExchangeStep::Request, ExchangeStep::Reply}) {
        SocksExchange cut = exchange;
        cut.cutOff();
        expectFailure(cut, step, true, {});
        while (exchange.step() == step && exchange.state() != State::Succeeded)
            exchange.state() == State::Sends ? wire.send(exchange) : wire.receive(exchange);
    }
    EXPECT_EQ(exchange.state(), State::Succeeded);
    exchange.cutOff();
    EXPECT_EQ(exchange.state(), State::Succeeded) << "too late";
}

TEST(SocksExchange, withoutARequestIsOverOnceTheMethodIsAccepted)
{
    SocksExchange exchange{Bytes()};
    Wire wire{.stream = accepted};
    wire.drive(exchange);
    EXPECT_EQ(exchange.state(), State::Succeeded);
    EXPECT_EQ(wire.sent, bytes({5, 1, 0}));
    EXPECT_EQ(exchange.bound(), std::nullopt);
}

TEST(SocksExchange, knowsWhetherItsGreetingWasAcceptedWhateverFollows)
{
    EXPECT_FALSE(exchangeFor(web).isGreetingAccepted());
    for (const Bytes &stream : {Bytes(), bytes({5}), bytes({5, 0xFF}), bytes({4, 0})})
        EXPECT_FALSE(after(stream).isGreetingAccepted());
    for (const Bytes &reply : {Bytes(), bytes({5, 0, 0}), bytes({5, 1, 0, 1, 0, 0, 0, 0, 0, 0})})
        EXPECT_TRUE(after(accepted + reply).isGreetingAccepted());
    EXPECT_TRUE(after(accepted + connected).isGreetingAccepted());
    SocksExchange greeted{Bytes()};
    Wire{.stream = accepted}.drive(greeted);
    EXPECT_TRUE(greeted.isGreetingAccepted());
}

TEST(SocksExchange, canBeginAtTheRequest)
{
    SocksExchange exchange = SocksExchange::ofRequest(requestBytes(UdpAssociation()).value());
    Wire wire{.stream = connected};
    wire.drive(exchange);
    EXPECT_EQ(exchange.state(), State::Succeeded);
    EXPECT_EQ(wire.sent, Bytes(udpAssociateRequest.begin(), udpAssociateRequest.end()));
}

TEST(SocksExchange, takesNoMoreThanItAskedFor)
{
    SocksExchange exchange = exchangeFor(web);
    exchange.sent(1000);
    EXPECT_EQ(exchange.step(), ExchangeStep::MethodReply);
    std::ranges::copy(accepted, exchange.room().begin());
    exchange.received(1000);
    EXPECT_EQ(exchange.step(), ExchangeStep::Request);
    EXPECT_EQ(exchange.toSend().size(), 10u);
}

TEST(SocksRequestBytes, ofAnIpv6AddressHas22Bytes)
{
    Ipv6Destination destination{.address = {}, .port = 443};
    destination.address[0] = 0x20;
    destination.address[15] = 1;
    EXPECT_EQ(requestBytes(destination), bytes({5, 1, 0, 4, 0x20}) + Bytes(14) + bytes({1, 0x01, 0xBB}));
}

TEST(SocksRequestBytes, ofANameIsAsLongAsItsOwnerAllows)
{
    EXPECT_FALSE(requestBytes(NamedDestination{std::string(256, 'x'), 1}));
    EXPECT_FALSE(requestBytes(NamedDestination{"", 1}, 505));
    EXPECT_FALSE(requestBytes(NamedDestination{std::string(506, 'x'), 1}, 505));
    const auto longest = requestBytes(NamedDestination{std::string(505, 'x'), 1}, 505);
    ASSERT_TRUE(longest);
    EXPECT_EQ(longest->size(), 512u);
    EXPECT_EQ((*longest)[4], 505 & 0xFF) << "there is but one byte for it";
}

} // namespace
} // namespace ruvo::socks5
