#include "common/ipv4.h"

#include <gtest/gtest.h>

namespace ruvo {
namespace {

TEST(FormatIpv4, writesTheMostSignificantOctetFirst)
{
    EXPECT_EQ(formatIpv4(0x0a060701), QString("10.6.7.1"));
    EXPECT_EQ(formatIpv4(0), QString("0.0.0.0"));
    EXPECT_EQ(formatIpv4(0xffffffff), QString("255.255.255.255"));
    EXPECT_EQ(formatIpv4(0x01000080), QString("1.0.0.128"));
}

TEST(ParseIpv4, readsWhatFormatIpv4Writes)
{
    for (std::uint32_t i = 0; i < 20000; ++i) {
        const std::uint32_t ip = i * 2654435761U;
        ASSERT_EQ(parseIpv4(formatIpv4(ip)), ip) << formatIpv4(ip).toStdString();
    }
}

TEST(ParseIpv4, takesEveryValueOfAnOctet)
{
    for (std::uint32_t value = 0; value <= 255; ++value) {
        const QString number = QString::number(value);
        ASSERT_EQ(parseIpv4(number + ".1.2.3"), value << 24 | 0x010203U);
        ASSERT_EQ(parseIpv4("1.2.3." + number), 0x01020300U | value);
    }
}

TEST(ParseIpv4, readsLeadingZerosAsDecimal)
{
    EXPECT_EQ(parseIpv4(u"010.006.007.001"), 0x0a060701U);
    EXPECT_EQ(parseIpv4(u"0000000000010.6.7.1"), 0x0a060701U);
}

TEST(ParseIpv4, givesZeroForTheUnspecifiedAddress)
{
    EXPECT_EQ(parseIpv4(u"0.0.0.0"), 0U);
}

class NotAnAddress : public ::testing::TestWithParam<const char16_t *>
{};

TEST_P(NotAnAddress, givesZero)
{
    EXPECT_EQ(parseIpv4(GetParam()), 0U);
}

INSTANTIATE_TEST_SUITE_P(ParseIpv4, NotAnAddress,
                         ::testing::Values(u"", u".", u"...", u"1", u"10.6.7", u"10.6.7.", u".10.6.7", u"10..6.7",
                                           u"10.6.7.1.", u"10.6.7.1.2", u"10.6.7.256", u"256.6.7.1", u"10.6.7.1000",
                                           u"10.6.7.4294967297", u"10.6.7.18446744073709551617", u"10.6.7.-1",
                                           u"10.6.7.-0", u"10.6.7.+1", u" 10.6.7.1", u"10.6.7.1 ", u"10. 6.7.1",
                                           u"10.6.7.1\n", u"10,6,7,1", u"10.6.7.0x1", u"10.6.7.a", u"10.6.7.1/30",
                                           u"10.6.7.1:80", u"localhost", u"::1", u"10.6.7.\u0661", u"10.6.7.\uff11"));

} // namespace
} // namespace ruvo
