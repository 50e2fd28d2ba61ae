#include "netcfg/adapter_guid.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/support/call_journal.h"

#include <QCryptographicHash>
#include <QString>

#include <gtest/gtest.h>

#include <wincrypt.h>

#include <algorithm>
#include <cstring>

namespace ruvo {
namespace {

constexpr DWORD someError = 1234;

QByteArray bytesOf(const GUID &guid)
{
    return QByteArray(reinterpret_cast<const char *>(&guid), sizeof(guid)).toHex();
}

QByteArray md5(const QByteArray &text)
{
    return QCryptographicHash::hash(text, QCryptographicHash::Md5).toHex();
}

const QByteArray allZero(32, '0');

TEST(AdapterGuid, isTheHashOfThePrefixAndTheNameAsItIs)
{
    // md5sum of "wintunruvo-default-tun", no bit of it changed.
    EXPECT_EQ(bytesOf(deterministicGuid(L"ruvo-default-tun")), md5("wintunruvo-default-tun"));
    EXPECT_EQ(bytesOf(deterministicGuid(L"a")), md5("wintuna"));
}

TEST(AdapterGuid, hasTheDigestsBytesInMemoryOrder)
{
    const GUID guid = deterministicGuid(L"ruvo-default-tun");
    const QByteArray digest = QByteArray::fromHex(md5("wintunruvo-default-tun"));
    const auto byte = [&digest](int at) { return static_cast<unsigned char>(digest[at]); };
    EXPECT_EQ(guid.Data1, static_cast<DWORD>(byte(0) | byte(1) << 8 | byte(2) << 16) | DWORD{byte(3)} << 24);
    EXPECT_EQ(guid.Data2, byte(4) | byte(5) << 8);
    EXPECT_EQ(guid.Data3, byte(6) | byte(7) << 8);
    EXPECT_EQ(std::memcmp(guid.Data4, digest.constData() + 8, 8), 0);
}

TEST(AdapterGuid, takesTheNameInUtf8WithoutItsEnd)
{
    EXPECT_EQ(bytesOf(deterministicGuid(L"T\u00FCr \u20AC \U0001F511")),
              md5("wintunT\xC3\xBCr \xE2\x82\xAC \xF0\x9F\x94\x91"));
    EXPECT_EQ(bytesOf(deterministicGuid(L"")), md5("wintun"));
}

TEST(AdapterGuid, isTheSameForTheSameNameOnly)
{
    EXPECT_EQ(bytesOf(deterministicGuid(L"one")), bytesOf(deterministicGuid(L"one")));
    EXPECT_NE(bytesOf(deterministicGuid(L"one")), bytesOf(deterministicGuid(L"One")));
    EXPECT_NE(bytesOf(deterministicGuid(L"one")), bytesOf(deterministicGuid(L"one ")));
}

class AdapterGuidCalls : public testing::Test
{
protected:
    AdapterGuidCalls()
    {
        m_journal.watch<IMPORT(CryptAcquireContextW)>();
        m_journal.watch<IMPORT(CryptCreateHash)>();
        m_journal.watch<IMPORT(CryptHashData)>();
        m_journal.watch<IMPORT(CryptGetHashParam)>();
        m_journal.watch<IMPORT(CryptDestroyHash)>();
        m_journal.watch<IMPORT(CryptReleaseContext)>();
    }

    QStringList names() const
    {
        QStringList names;
        for (const std::string &line : m_journal.lines())
            names.append(QString::fromStdString(line).section('(', 0, 0));
        return names;
    }

    test::CallJournal m_journal;
};

TEST_F(AdapterGuidCalls, askForNoKeysOfAnybody)
{
    deterministicGuid(L"name");
    EXPECT_EQ(names(), (QStringList{"CryptAcquireContextW", "CryptCreateHash", "CryptHashData", "CryptGetHashParam",
                                    "CryptDestroyHash", "CryptReleaseContext"}));
    EXPECT_EQ(m_journal.lines().at(0), "CryptAcquireContextW(&, null, null, 1, 0xf0000000)");
    EXPECT_NE(m_journal.lines().at(1).find(", 0x8003, 0, 0, &)"), std::string::npos) << m_journal.lines().at(1);
}

TEST_F(AdapterGuidCalls, thatFailGiveAllZeroesAndLeaveNothingOpen)
{
    const QHash<QString, QStringList> lines = {
        {"CryptAcquireContextW", {"WARNING CryptAcquireContext failed: 1234"}},
        {"CryptCreateHash", {"WARNING CryptCreateHash failed: 1234"}},
    };
    test::LogCapture log;
    test::forEachFailure(m_journal, someError, [&] {
        log.clear();
        const QByteArray guid = bytesOf(deterministicGuid(L"name"));
        const QString failed = QString::fromStdString(m_journal.failed());
        const bool decides =
            QStringList{"CryptAcquireContextW", "CryptCreateHash", "CryptHashData", "CryptGetHashParam"}.contains(
                failed);
        EXPECT_EQ(guid, decides ? allZero : md5("wintunname")) << failed.toStdString();
        EXPECT_EQ(log.lines(), lines.value(failed)) << failed.toStdString();
        EXPECT_EQ(names().count("CryptReleaseContext"), failed == "CryptAcquireContextW" ? 0 : 1);
        EXPECT_EQ(names().count("CryptDestroyHash"), names().contains("CryptHashData") ? 1 : 0);
    });
}

} // namespace
} // namespace ruvo
