#include "socks5/blocking_exchange.h"

#include "io/timed_io.h"

namespace ruvo {

void driveExchange(socks5::SocksExchange &exchange, SocketWait &wait, SOCKET socket,
                   const std::function<SocketWait::Clock::time_point()> &deadline)
{
    using State = socks5::SocksExchange::State;
    while (exchange.state() == State::Sends || exchange.state() == State::Receives) {
        if (const socks5::ByteView next = exchange.toSend(); !next.empty()) {
            if (!sendWithin(wait, socket, next, deadline()))
                return exchange.cutOff();
            exchange.sent(next.size());
        } else {
            const std::span<std::uint8_t> room = exchange.room();
            const std::size_t count = receiveWithin(wait, socket, room, deadline());
            exchange.received(count);
            if (count < room.size())
                return exchange.cutOff();
        }
    }
}

} // namespace ruvo
