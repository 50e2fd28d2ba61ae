#include "socks5/socks_failure_log.h"

#include "common/log_category.h"

namespace ruvo {

void logSocksFailure(const socks5::SocksFailure &failure, bool byName)
{
    using Step = socks5::ExchangeStep;
    switch (failure.step) {
    case Step::Greeting: qCWarning(lcRuvod) << "Failed to send SOCKS5 greeting"; break;
    case Step::MethodReply:
        qCWarning(lcRuvod) << (failure.isCutOff ? "Failed to receive SOCKS5 response"
                                                : "SOCKS5 authentication failed");
        break;
    case Step::Request:
        qCWarning(lcRuvod) << (byName ? "Failed to send domain connection request"
                                      : "Failed to send connection request");
        break;
    case Step::Reply:
        if (failure.isCutOff) {
            qCWarning(lcRuvod) << (byName ? "Failed to receive domain connection response"
                                          : "Failed to receive connection response");
        } else {
            qCWarning(lcRuvod) << (byName ? "SOCKS5 domain connection failed with reply:"
                                          : "SOCKS5 connection failed with reply:")
                               << failure.code();
        }
        break;
    }
}

} // namespace ruvo
