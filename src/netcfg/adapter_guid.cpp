#include "netcfg/adapter_guid.h"

#include "common/log_category.h"
#include "common/windows_handles.h"

#include <QString>

#include <cstring>

#include <wincrypt.h>

namespace ruvo {

namespace {

struct CryptContextTraits
{
    using Type = HCRYPTPROV;
    static Type none() { return 0; }
    static void close(Type context) { CryptReleaseContext(context, 0); }
};

struct CryptHashTraits
{
    using Type = HCRYPTHASH;
    static Type none() { return 0; }
    static void close(Type hash) { CryptDestroyHash(hash); }
};

} // namespace

GUID deterministicGuid(const std::wstring &name)
{
    GUID guid{};
    UniqueHandle<CryptContextTraits> context;
    if (!CryptAcquireContextW(context.out(), nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT)) {
        const DWORD error = GetLastError();
        qCWarning(lcRuvod) << "CryptAcquireContext failed:" << error;
        return guid;
    }
    UniqueHandle<CryptHashTraits> hash;
    if (!CryptCreateHash(context.get(), CALG_MD5, 0, 0, hash.out())) {
        const DWORD error = GetLastError();
        qCWarning(lcRuvod) << "CryptCreateHash failed:" << error;
        return guid;
    }
    const QByteArray text = "wintun" + QString::fromStdWString(name).toUtf8();
    BYTE digest[sizeof(GUID)];
    DWORD size = sizeof(digest);
    if (CryptHashData(hash.get(), reinterpret_cast<const BYTE *>(text.constData()), static_cast<DWORD>(text.size()),
                      0)
        && CryptGetHashParam(hash.get(), HP_HASHVAL, digest, &size, 0)) {
        std::memcpy(&guid, digest, sizeof(guid));
    }
    return guid;
}

} // namespace ruvo
