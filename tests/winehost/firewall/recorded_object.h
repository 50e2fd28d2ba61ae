#pragma once

#include "firewall/com_call.h"

#include <netfw.h>

#include <atomic>
#include <string>

namespace ruvo::winehost {

/// The number of a new object: the journal tells by it which ones were released, and which never.
unsigned long nextObjectNumber();

// Interfaces of COM have no destructor: their layout is fixed.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/// An object of COM with what all of them have. Made with one reference; its last release is a line of the journal
/// ("INetFwRule::Release" with its number). The memory stays, so that calls after that can be found: they are lines
/// with "misuse".
template<typename Interface>
class RecordedObject : public Interface
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID wanted, void **object) override
    {
        if (!object)
            return E_POINTER;
        const bool isKnown = IsEqualGUID(wanted, IID_IUnknown) || IsEqualGUID(wanted, IID_IDispatch)
                             || IsEqualGUID(wanted, m_interface);
        *object = isKnown ? this : nullptr;
        if (!isKnown)
            return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }

    ULONG STDMETHODCALLTYPE AddRef() override
    {
        checkAlive("AddRef");
        return ++m_references;
    }

    ULONG STDMETHODCALLTYPE Release() override
    {
        if (!checkAlive("Release"))
            return 0;
        const ULONG left = --m_references;
        if (left == 0)
            JournalEntry(nameOf("Release")).add("object", m_number);
        return left;
    }

    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT *) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo **) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR *, UINT, LCID, DISPID *) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS *, VARIANT *, EXCEPINFO *,
                                     UINT *) override
    {
        return E_NOTIMPL;
    }

    unsigned long number() const { return m_number; }

protected:
    RecordedObject(const char *name, const IID &interfaceId) : m_name(name), m_interface(interfaceId) {}
    ~RecordedObject() = default;

    std::string nameOf(const char *function) const { return std::string(m_name) + "::" + function; }

    /// One call of this object: `work` gets its line of the journal and returns the HRESULT.
    template<typename Work>
    HRESULT call(const char *function, Work work)
    {
        ComCall call(nameOf(function));
        call.add("object", m_number);
        checkAlive(function);
        return call.finish([&] { return work(call); });
    }

    /// One that this bench does not do.
    HRESULT refuse(const char *function)
    {
        return call(function, [](ComCall &) { return E_NOTIMPL; });
    }

private:
    bool checkAlive(const char *function)
    {
        if (m_references != 0)
            return true;
        JournalEntry(nameOf(function)).add("object", m_number).add("misuse", "after the last release");
        return false;
    }

    const char *const m_name;
    const IID m_interface;
    const unsigned long m_number = nextObjectNumber();
    std::atomic<ULONG> m_references = 1;
};

#pragma GCC diagnostic pop

} // namespace ruvo::winehost
