#include "windows/netcfg/fake_filter_engine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace ruvo::test {

namespace {

const HANDLE session = reinterpret_cast<HANDLE>(0xF17E);

// As documented, by their numbers: nothing is shared with the product's declarations.
const QHash<QString, QString> layers = {
    {"{C38D57D1-05A7-4C33-904F-7FBCEEE60E82}", "connect-v4"},
    {"{4A72393B-319F-44BC-84C3-BA54DCB3B6B4}", "connect-v6"},
    {"{E1CD9FE7-F4B5-4273-96C0-592E487B8650}", "accept-v4"},
    {"{A3B42C97-9F04-4672-B87E-CEE9C483257F}", "accept-v6"},
};
const QHash<QString, QString> fields = {
    {"{D78E1E87-8644-4EA5-9437-D809ECEFC971}", "program"},
    {"{667FD755-D695-434A-8AF5-D3835A1259BC}", "interface"},
    {"{C35A604D-D22B-4E1A-91B4-68F674EE674B}", "remote-port"},
};
const QHash<UINT32, QString> actions = {{0x1001, "block"}, {0x1002, "permit"}};

bool isZero(const GUID &guid)
{
    return IsEqualGUID(guid, GUID{});
}

QString textOf(const FWPM_DISPLAY_DATA0 &data)
{
    return QString("'%1' '%2'").arg(QString::fromWCharArray(data.name), QString::fromWCharArray(data.description));
}

QString unless(bool usual, const QString &text)
{
    return usual ? QString() : " (" + text + ")";
}

/// As a Windows reads them for which they have 32 bits.
UINT32 flagsOf(const FWPM_SUBLAYER0 &subLayer)
{
    UINT32 flags = 0;
    std::memcpy(&flags, reinterpret_cast<const char *>(&subLayer) + offsetof(FWPM_SUBLAYER0, flags), sizeof(flags));
    return flags;
}

QString valueText(const FWP_CONDITION_VALUE0 &value)
{
    switch (value.type) {
    case FWP_UINT16: return QString("uint16 %1").arg(value.uint16);
    case FWP_UINT32: return QString("uint32 %1").arg(value.uint32);
    case FWP_BYTE_BLOB_TYPE:
        return QString::fromUtf8(reinterpret_cast<const char *>(value.byteBlob->data),
                                 static_cast<qsizetype>(value.byteBlob->size));
    default: return QString("of type %1").arg(value.type);
    }
}

} // namespace

FakeFilterEngine::FakeFilterEngine(FirewallCalls &calls)
    : m_calls(calls)
    , m_createGuid([this](GUID *guid) -> HRESULT {
        *guid = {m_nextKey++, 0, 0, {}};
        return static_cast<HRESULT>(m_calls.answer("CoCreateGuid"));
    })
    , m_open([this](const wchar_t *server, UINT32 authentication, SEC_WINNT_AUTH_IDENTITY_W *,
                    const FWPM_SESSION0 *given,
                    HANDLE *handle) -> DWORD { return open(server, authentication, *given, handle); })
    , m_addSubLayer([this](HANDLE handle, const FWPM_SUBLAYER0 *subLayer, PSECURITY_DESCRIPTOR) -> DWORD {
        EXPECT_EQ(handle, session);
        return addSubLayer(*subLayer);
    })
    , m_programId([this](const wchar_t *path, FWP_BYTE_BLOB **id) -> DWORD {
        return programId(QString::fromWCharArray(path), id);
    })
    , m_addFilter([this](HANDLE handle, const FWPM_FILTER0 *filter, PSECURITY_DESCRIPTOR, UINT64 *id) -> DWORD {
        EXPECT_EQ(handle, session);
        return addFilter(*filter, id);
    })
    , m_findFilter([this](HANDLE handle, UINT64 id, FWPM_FILTER0 **filter) -> DWORD {
        EXPECT_EQ(handle, session);
        return findFilter(id, filter);
    })
    , m_deleteFilter([this](HANDLE handle, UINT64 id) -> DWORD {
        EXPECT_EQ(handle, session);
        return deleteFilter(id);
    })
    , m_deleteSubLayer([this](HANDLE handle, const GUID *key) -> DWORD {
        EXPECT_EQ(handle, session);
        return m_calls.answer("FwpmSubLayerDeleteByKey0 " + keyText(*key));
    })
    , m_close([this](HANDLE handle) -> DWORD {
        EXPECT_EQ(handle, session);
        --openSessions;
        return m_calls.answer("FwpmEngineClose0");
    })
    , m_freeMemory([this](void **memory) { freeMemory(memory); })
{}

FakeFilterEngine::~FakeFilterEngine()
{
    EXPECT_EQ(openSessions, 0);
    EXPECT_TRUE(m_memory.empty());
}

DWORD FakeFilterEngine::open(const wchar_t *server, UINT32 authentication, const FWPM_SESSION0 &given, HANDLE *handle)
{
    const bool isUsual = isZero(given.sessionKey) && given.txnWaitTimeoutInMSec == 0 && !given.kernelMode;
    const DWORD error = m_calls.answer(QString("FwpmEngineOpen0 %1 authentication %2 %3 flags %4")
                                           .arg(server ? "(remote)" : "local")
                                           .arg(authentication, 0, 16)
                                           .arg(textOf(given.displayData))
                                           .arg(given.flags)
                                       + unless(isUsual, "session"));
    if (error == 0) {
        *handle = session;
        ++openSessions;
        m_nextId = 1001;
    }
    return error;
}

DWORD FakeFilterEngine::addSubLayer(const FWPM_SUBLAYER0 &subLayer)
{
    subLayers.push_back(subLayer.subLayerKey);
    return m_calls.answer(QString("FwpmSubLayerAdd0 %1 %2 flags %3 weight %4")
                              .arg(keyText(subLayer.subLayerKey), textOf(subLayer.displayData))
                              .arg(flagsOf(subLayer))
                              .arg(subLayer.weight)
                          + unless(!subLayer.providerKey && subLayer.providerData.size == 0, "provider"));
}

QString FakeFilterEngine::conditionText(const FWPM_FILTER0 &filter) const
{
    if (filter.numFilterConditions == 0)
        return "all" + unless(!filter.filterCondition, "conditions");
    const FWPM_FILTER_CONDITION0 &condition = *filter.filterCondition;
    return fields.value(guidText(condition.fieldKey), "(unknown field)") + " " + valueText(condition.conditionValue)
           + unless(condition.matchType == FWP_MATCH_EQUAL, "not equal")
           + unless(filter.numFilterConditions == 1, "several conditions");
}

DWORD FakeFilterEngine::addFilter(const FWPM_FILTER0 &filter, UINT64 *id)
{
    const bool isUsual = isZero(filter.filterKey) && filter.flags == 0 && !filter.providerKey
                         && filter.providerData.size == 0 && filter.rawContext == 0;
    const DWORD error = m_calls.answer(
        QString("FwpmFilterAdd0 %1 %2 in %3 weight %4 %5 %6")
            .arg(textOf(filter.displayData), layers.value(guidText(filter.layerKey), "(unknown layer)"),
                 keyText(filter.subLayerKey))
            .arg(filter.weight.uint8)
            .arg(actions.value(filter.action.type, "(unknown action)"), conditionText(filter))
        + unless(filter.weight.type == FWP_UINT8, "weight of another type") + unless(isUsual, "something else"));
    if (error == 0) {
        *id = m_nextId++;
        filters.push_back(*id);
    }
    return error;
}

DWORD FakeFilterEngine::findFilter(UINT64 id, FWPM_FILTER0 **filter)
{
    *filter = nullptr;
    if (const DWORD error = m_calls.answer(QString("FwpmFilterGetById0 %1").arg(id)))
        return error;
    if (id == idWithoutFilter)
        return NO_ERROR;
    if (!std::ranges::count(filters, id))
        return static_cast<DWORD>(FWP_E_FILTER_NOT_FOUND);
    *filter = static_cast<FWPM_FILTER0 *>(std::calloc(1, sizeof(FWPM_FILTER0)));
    m_memory.insert(*filter);
    return NO_ERROR;
}

DWORD FakeFilterEngine::deleteFilter(UINT64 id)
{
    const DWORD error = m_calls.answer(QString("FwpmFilterDeleteById0 %1").arg(id));
    if (error == 0)
        std::erase(filters, id);
    return error;
}

/// The path itself stands for the id.
DWORD FakeFilterEngine::programId(const QString &path, FWP_BYTE_BLOB **id)
{
    *id = nullptr;
    if (const DWORD error = m_calls.answer("FwpmGetAppIdFromFileName0 " + path))
        return error;
    const QByteArray text = path.toUtf8();
    auto *memory = static_cast<UINT8 *>(std::malloc(sizeof(FWP_BYTE_BLOB) + static_cast<std::size_t>(text.size())));
    UINT8 *data = memory + sizeof(FWP_BYTE_BLOB);
    std::memcpy(data, text.constData(), static_cast<std::size_t>(text.size()));
    const FWP_BYTE_BLOB blob = {static_cast<UINT32>(text.size()), data};
    std::memcpy(memory, &blob, sizeof(blob));
    *id = reinterpret_cast<FWP_BYTE_BLOB *>(memory);
    m_memory.insert(memory);
    return NO_ERROR;
}

void FakeFilterEngine::freeMemory(void **memory)
{
    EXPECT_EQ(m_memory.erase(*memory), 1u);
    std::free(*memory);
    *memory = nullptr;
}

QString FakeFilterEngine::keyText(const GUID &key) const
{
    if (isZero(key))
        return "no sublayer";
    return !subLayers.empty() && IsEqualGUID(key, subLayers.back()) ? "its sublayer" : "another sublayer";
}

} // namespace ruvo::test
