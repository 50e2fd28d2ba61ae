#include "netcfg/resolver_cache.h"

#include "common/winsock_headers.h"
#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/support/import_redirection.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>

namespace ruvo {
namespace {

const auto library = reinterpret_cast<HMODULE>(0xD00000);

class ResolverCache : public testing::Test
{
protected:
    void SetUp() override { s_test = this; }

    test::LogCapture m_log;
    QStringList m_calls;
    bool m_hasLibrary = true;
    bool m_hasFunction = true;
    BOOL m_result = TRUE;

private:
    static BOOL WINAPI flush()
    {
        s_test->m_calls.append("DnsFlushResolverCache");
        return s_test->m_result;
    }

    inline static ResolverCache *s_test = nullptr;

    const test::ImportRedirection<IMPORT(LoadLibraryW)> m_load{[this](LPCWSTR name) -> HMODULE {
        m_calls.append("LoadLibraryW " + QString::fromWCharArray(name));
        return m_hasLibrary ? library : nullptr;
    }};
    const test::ImportRedirection<IMPORT(GetProcAddress)> m_lookUp{[this](HMODULE module, LPCSTR name) -> FARPROC {
        if (module != library)
            return m_lookUp.real(module, name);
        return m_hasFunction && std::strcmp(name, "DnsFlushResolverCache") == 0 ? std::bit_cast<FARPROC>(&flush)
                                                                                : nullptr;
    }};
    const test::ImportRedirection<IMPORT(FreeLibrary)> m_free{[this](HMODULE module) -> BOOL {
        if (module != library)
            return m_free.real(module);
        m_calls.append("FreeLibrary");
        return TRUE;
    }};
};

TEST_F(ResolverCache, isFlushedByTheFunctionOfDnsapi)
{
    EXPECT_TRUE(flushDnsCache());
    EXPECT_EQ(m_calls, (QStringList{"LoadLibraryW dnsapi.dll", "DnsFlushResolverCache", "FreeLibrary"}));
    EXPECT_EQ(m_log.lines(), QStringList{"DEBUG \u2713 DNS resolver cache flushed"});
}

TEST_F(ResolverCache, isNotFlushedWithoutTheLibrary)
{
    m_hasLibrary = false;
    EXPECT_FALSE(flushDnsCache());
    EXPECT_EQ(m_calls, QStringList{"LoadLibraryW dnsapi.dll"});
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to flush DNS resolver cache"});
}

TEST_F(ResolverCache, isNotFlushedWithoutTheFunction)
{
    m_hasFunction = false;
    EXPECT_FALSE(flushDnsCache());
    EXPECT_EQ(m_calls.constLast(), "FreeLibrary");
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to flush DNS resolver cache"});
}

TEST_F(ResolverCache, isNotFlushedIfTheFunctionSaysSo)
{
    m_result = FALSE;
    EXPECT_FALSE(flushDnsCache());
    EXPECT_EQ(m_calls.constLast(), "FreeLibrary");
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to flush DNS resolver cache"});
}

} // namespace
} // namespace ruvo
