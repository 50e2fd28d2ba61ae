#include "common/endpoint.h"

#include "common/ipv4.h"

namespace ruvo {

QString formatEndpoint(const Endpoint &endpoint)
{
    return formatIpv4(endpoint.address) + u':' + QString::number(endpoint.port);
}

} // namespace ruvo
