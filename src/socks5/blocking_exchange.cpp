#include "socks5/blocking_exchange.h"

#include "io/timed_io.h"

namespace ruvo {

DrivenExchange driveExchange(socks5::SocksExchange &exchange, SocketWait &wait, SOCKET socket,
                             const std::function<SocketWait::Clock::time_point()> &deadline)
{
    using State = socks5::SocksExchange::State;
    DrivenExchange driven;
    while (exchange.state() == State::Sends || exchange.state() == State::Receives) {
        if (const socks5::ByteView next = exchange.toSend(); !next.empty()) {
            driven.error = sendWithin(wait, socket, next, deadline());
            if (driven.error == NO_ERROR)
                exchange.sent(next.size());
            else
                exchange.cutOff();
            continue;
        }
        const std::span<std::uint8_t> room = exchange.room();
        std::size_t count = 0;
        driven.error = receiveWithin(wait, socket, room, deadline(), count);
        exchange.received(count);
        if (count < room.size())
            exchange.cutOff();
        if (!driven.acceptedAt && exchange.isGreetingAccepted())
            driven.acceptedAt = steadyNow();
    }
    return driven;
}

} // namespace ruvo
