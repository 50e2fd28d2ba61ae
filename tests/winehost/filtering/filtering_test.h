#pragma once

#include "filtering/filter_terms.h"
#include "library/json_value.h"
#include "namespace/bench_files.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ruvo::test {

constexpr DWORD code(HRESULT error)
{
    return static_cast<DWORD>(error);
}

/// Tests of fwpuclnt.dll against the engine of the namespace, which has nothing else to do.
class FilteringTest : public ::testing::Test
{
protected:
    static constexpr GUID sublayerKey{0x0badcafe, 0x1234, 0x5678, {1, 2, 3, 4, 5, 6, 7, 8}};

    void SetUp() override;
    void TearDown() override;

    /// A dynamic session that the test need not close.
    HANDLE open(const wchar_t *name = L"session", UINT32 flags = winehost::filter_flags::dynamicSession);
    static DWORD addSublayer(HANDLE engine, const GUID &key = sublayerKey);

    /// One that the engine takes: weight 10, blocks, no conditions.
    static FWPM_FILTER0 filterAt(std::string_view layer);
    static FWPM_FILTER_CONDITION0 condition(std::string_view field, FWP_DATA_TYPE type);
    static FWPM_FILTER_CONDITION0 remotePort(UINT16 port);

    /// What the engine itself says that it has: "sessions", "sublayers" or "filters".
    static std::vector<winehost::JsonValue> engineHas(std::string_view what);

private:
    std::vector<HANDLE> m_opened;
};

} // namespace ruvo::test
