#include "filtering/bound_sockets.h"

#include "library/lock.h"

#include <mutex>

namespace ruvo::winehost {

namespace {

struct Place
{
    Lock lock;
    SOCKET socket = INVALID_SOCKET;
    SocketFacts facts;
};

std::array<Place, 1024> s_places;

Place &placeOf(SOCKET socket)
{
    return s_places[(static_cast<std::size_t>(socket) >> 2) % s_places.size()]; // handles are multiples of four
}

} // namespace

void noteBoundSocket(SOCKET socket, const Descriptor &descriptor)
{
    const auto facts = factsOf(descriptor);
    Place &place = placeOf(socket);
    const std::lock_guard lock(place.lock);
    place.socket = facts ? socket : INVALID_SOCKET;
    place.facts = facts.value_or(SocketFacts());
}

void forgetBoundSocket(SOCKET socket)
{
    Place &place = placeOf(socket);
    const std::lock_guard lock(place.lock);
    if (place.socket == socket)
        place.socket = INVALID_SOCKET;
}

std::optional<SocketFacts> boundSocket(SOCKET socket)
{
    Place &place = placeOf(socket);
    const std::lock_guard lock(place.lock);
    if (place.socket != socket)
        return std::nullopt;
    return place.facts;
}

} // namespace ruvo::winehost
