#pragma once

#include "namespace/bench_files.h"
#include "namespace/linux_command.h"

#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace ruvo::test {

/// A test that changes real interfaces and routes, in the namespace of in-namespace: "uplink" (192.0.2.2/24) with the
/// default route. It fails if it leaves a TUN or a route behind, or if a rule of Wintun's interface was broken.
class NamespaceTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    static std::wstring libraryPath();

    /// An adapter that was there before the program, as a line in `ip link`: "kept". Gone with the test.
    static void makeAdapter(const std::string &name);

    /// The TUN interfaces, a line each.
    static std::string tunLinks();
    /// The addresses of an interface ("10.6.7.1/30"), with blanks between.
    static std::string addressesOf(const std::string &link);
    /// `ip -4 route show …`, without the blanks at the ends of lines.
    static std::string routes(const std::string &what = {});
    /// The value NameServer of an interface in the registry; "(none)" if there is none.
    static std::string nameServer(const std::wstring &service, const GUID &guid);

    /// Every call of `function` fails, or only the first `which` says so: a line of faults.txt.
    static void fail(const std::string &function, DWORD error, const std::string &which = "*");
    static void failNothing();

    LogCapture m_log;
};

} // namespace ruvo::test
