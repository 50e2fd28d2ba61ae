#include "netconfig/netconfig_test.h"

#include <gmock/gmock.h>

#include <vector>

namespace ruvo::test {

namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr ULONG flags = GAA_FLAG_INCLUDE_PREFIX;

/// "friendly name, GUID, status, description" of each adapter.
std::vector<std::string> adapters()
{
    ULONG size = 0;
    EXPECT_EQ(GetAdaptersAddresses(AF_UNSPEC, flags, nullptr, nullptr, &size), ULONG{ERROR_BUFFER_OVERFLOW});
    std::vector<BYTE> buffer(size);
    auto *list = reinterpret_cast<IP_ADAPTER_ADDRESSES *>(buffer.data());
    ULONG tooSmall = size / 2;
    EXPECT_EQ(GetAdaptersAddresses(AF_UNSPEC, flags, nullptr, list, &tooSmall), ULONG{ERROR_BUFFER_OVERFLOW});
    EXPECT_EQ(tooSmall, size);
    EXPECT_EQ(GetAdaptersAddresses(AF_UNSPEC, flags, nullptr, list, &size), ULONG{NO_ERROR});
    std::vector<std::string> lines;
    for (const IP_ADAPTER_ADDRESSES *adapter = list; adapter; adapter = adapter->Next) {
        const std::wstring name = adapter->FriendlyName;
        const std::wstring description = adapter->Description;
        lines.push_back(std::string(name.begin(), name.end()) + ", " + adapter->AdapterName + ", "
                        + std::to_string(adapter->OperStatus) + ", "
                        + std::string(description.begin(), description.end()));
    }
    return lines;
}

/// One adapter of a list, or null; valid as long as `buffer` is as it was.
const IP_ADAPTER_ADDRESSES *findAdapter(const std::string &friendlyName, std::vector<BYTE> &buffer)
{
    buffer.resize(0x10000);
    auto size = static_cast<ULONG>(buffer.size());
    auto *list = reinterpret_cast<IP_ADAPTER_ADDRESSES *>(buffer.data());
    EXPECT_EQ(GetAdaptersAddresses(AF_INET, flags, nullptr, list, &size), ULONG{NO_ERROR});
    for (const IP_ADAPTER_ADDRESSES *adapter = list; adapter; adapter = adapter->Next) {
        const std::wstring name = adapter->FriendlyName;
        if (std::string(name.begin(), name.end()) == friendlyName)
            return adapter;
    }
    return nullptr;
}

std::string addressOf(const char *friendlyName)
{
    std::vector<BYTE> buffer;
    const auto *adapter = findAdapter(friendlyName, buffer);
    if (!adapter || !adapter->FirstUnicastAddress)
        return "(none)";
    char text[16];
    const auto *address = reinterpret_cast<const sockaddr_in *>(adapter->FirstUnicastAddress->Address.lpSockaddr);
    return inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
}

} // namespace

TEST_F(NetconfigTest, theListOfAdaptersShowsWintunAdaptersAsWindowsDoes)
{
    EXPECT_THAT(adapters(), Contains("The adapter, {12345678-9ABC-DEF0-0102-030405060708}, 2, Bench Tunnel"));
    EXPECT_THAT(adapters(), Contains(StartsWith("uplink, {0")));
    EXPECT_EQ(addAddress("test", "10.6.7.1", 30), DWORD{NO_ERROR});
    EXPECT_EQ(addressOf("The adapter"), "10.6.7.1");
}

TEST_F(NetconfigTest, theListOfAdaptersNamesWintunAdaptersAsOtherCallsDo)
{
    std::vector<BYTE> buffer;
    const auto *adapter = findAdapter("The adapter", buffer);
    ASSERT_TRUE(adapter);
    EXPECT_EQ(adapter->IfType, ULONG{IF_TYPE_PROP_VIRTUAL});
    EXPECT_EQ(adapter->Luid.Info.IfType, ULONG64{IF_TYPE_PROP_VIRTUAL});
    EXPECT_EQ(adapter->Luid.Value, luidOf("test").Value);
}

TEST_F(NetconfigTest, theListOfAdaptersHasThoseOfATestToo)
{
    const std::size_t before = adapters().size();
    writeBenchFile("adapters.txt", "down {01020304-0506-0708-090A-0B0C0D0E0F10} ruvo-tun # not yet\n"
                                   "up {11020304-0506-0708-090A-0B0C0D0E0F10} Ethernet 2\n");
    EXPECT_EQ(adapters().size(), before + 2);
    EXPECT_THAT(adapters(), Contains(StartsWith("ruvo-tun, {01020304-0506-0708-090A-0B0C0D0E0F10}, 2, ")));
    EXPECT_THAT(adapters(), Contains(StartsWith("Ethernet 2, {11020304-0506-0708-090A-0B0C0D0E0F10}, 1, ")));
    writeBenchFile("adapters.txt", "up {01020304-0506-0708-090A-0B0C0D0E0F10} ruvo-tun\nsideways\n");
    EXPECT_THAT(adapters(), Contains(StartsWith("ruvo-tun, {01020304-0506-0708-090A-0B0C0D0E0F10}, 1, ")));
    EXPECT_THAT(journal("not-understood"), Contains(HasSubstr("sideways")));
}

TEST_F(NetconfigTest, theListOfAdaptersFailsAtTheCallThatATestHasPlanned)
{
    writeBenchFile("faults.txt", "GetAdaptersAddresses 2 8\n");
    ULONG size = 0;
    EXPECT_EQ(GetAdaptersAddresses(AF_UNSPEC, flags, nullptr, nullptr, &size), ULONG{ERROR_BUFFER_OVERFLOW});
    EXPECT_EQ(GetAdaptersAddresses(AF_UNSPEC, flags, nullptr, nullptr, &size), ULONG{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(GetAdaptersAddresses(AF_UNSPEC, flags, nullptr, nullptr, &size), ULONG{ERROR_BUFFER_OVERFLOW});
}

TEST_F(NetconfigTest, theListOfAdaptersForgetsWhatIsGone)
{
    const std::string count = linuxOutput("ip -o link | wc -l");
    EXPECT_EQ(std::to_string(adapters().size()) + "\n", count);
    ASSERT_EQ(linuxOutput("ip link delete test && ip tuntap add dev test mode tun multi_queue"), "");
    EXPECT_EQ(std::to_string(adapters().size()) + "\n", count);
}

TEST_F(NetconfigTest, whatIsNotReplacedIsWines)
{
    DWORD index = 0;
    EXPECT_EQ(GetBestInterface(networkOrder("8.8.8.8"), &index), DWORD{NO_ERROR});
    EXPECT_EQ(index, indexOf("uplink"));
}

} // namespace ruvo::test
