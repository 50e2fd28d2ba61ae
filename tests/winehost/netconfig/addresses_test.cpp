#include "netconfig/netconfig_test.h"

#include <gmock/gmock.h>

namespace ruvo::test {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::string addressesOf(const std::string &link)
{
    return linuxOutput("ip -4 -o addr show dev " + link + " | awk '{print $4}'");
}

} // namespace

TEST_F(NetconfigTest, anAddressLandsOnTheInterface)
{
    EXPECT_EQ(addAddress("test", "10.6.7.1", 30), DWORD{NO_ERROR});
    EXPECT_EQ(addressesOf("test"), "10.6.7.1/30\n");
    EXPECT_THAT(routes("dev test"), HasSubstr("10.6.7.0/30 proto kernel scope link src 10.6.7.1"));
    EXPECT_THAT(journal("CreateUnicastIpAddressEntry"),
                ElementsAre(HasSubstr(R"("address":"10.6.7.1/30","interface":"test","result":true)")));
}

TEST_F(NetconfigTest, anAddressThatExistsIsRefusedWhateverItsPrefixIs)
{
    EXPECT_EQ(addAddress("test", "10.6.7.1", 30), DWORD{NO_ERROR});
    EXPECT_EQ(addAddress("test", "10.6.7.1", 30), DWORD{ERROR_OBJECT_ALREADY_EXISTS});
    EXPECT_EQ(addAddress("test", "10.6.7.1", 24), DWORD{ERROR_OBJECT_ALREADY_EXISTS});
    EXPECT_EQ(addAddress("test", "10.6.7.2", 30), DWORD{NO_ERROR});
    EXPECT_EQ(addressesOf("test"), "10.6.7.1/30\n10.6.7.2/30\n");
}

TEST_F(NetconfigTest, anAddressWithoutPrefixLengthIsAHostsOwn)
{
    EXPECT_EQ(addAddress("test", "10.6.7.1", 255), DWORD{NO_ERROR});
    EXPECT_EQ(addressesOf("test"), "10.6.7.1/32\n");
}

TEST_F(NetconfigTest, anAddressThatCannotBeIsRefused)
{
    EXPECT_EQ(addAddress("test", "10.6.7.1", 33), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(addAddress("test", "0.0.0.0", 24), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(addAddress("test", "224.0.0.1", 24), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(CreateUnicastIpAddressEntry(nullptr), DWORD{ERROR_INVALID_PARAMETER});

    MIB_UNICASTIPADDRESS_ROW row;
    InitializeUnicastIpAddressEntry(&row);
    row.Address = address("10.6.7.1");
    EXPECT_EQ(CreateUnicastIpAddressEntry(&row), DWORD{ERROR_INVALID_PARAMETER}); // on which interface?
    row.InterfaceIndex = 9999;
    EXPECT_EQ(CreateUnicastIpAddressEntry(&row), DWORD{ERROR_NOT_FOUND});
    row.InterfaceIndex = indexOf("test");
    row.Address.si_family = AF_UNSPEC;
    EXPECT_EQ(CreateUnicastIpAddressEntry(&row), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(addressesOf("test"), "");
}

TEST_F(NetconfigTest, aPlannedFailureChangesNothing)
{
    writeBenchFile("faults.txt", "CreateUnicastIpAddressEntry 2 5\n");
    EXPECT_EQ(addAddress("test", "10.6.7.1", 30), DWORD{NO_ERROR});
    EXPECT_EQ(addAddress("test", "10.6.8.1", 30), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(addressesOf("test"), "10.6.7.1/30\n");
    EXPECT_EQ(addAddress("test", "10.6.8.1", 30), DWORD{NO_ERROR});
    EXPECT_THAT(journal("planned"), ElementsAre(HasSubstr(R"("result":false,"error":5,"planned":true})")));
}

} // namespace ruvo::test
