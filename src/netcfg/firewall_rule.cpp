#include "netcfg/firewall_rule.h"

namespace ruvo {

FirewallRule listenerRule(const std::wstring &daemonPath)
{
    return {L"RUVO TUN (" + daemonPath + L")", L"Allow RUVO TUN TCP NAT listener", daemonPath};
}

} // namespace ruvo
