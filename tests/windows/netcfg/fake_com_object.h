#pragma once

#include "common/winsock_headers.h"

#include <gtest/gtest.h>
#include <netfw.h>

// COM's interfaces have no virtual destructor: their objects are released, never deleted through them.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

namespace ruvo::test {

/// A COM interface whose calls fail the test unless they are expected. Counts its references, begins with one, and
/// goes with the last. `live` is how many objects there are.
template<typename Interface>
class FakeComObject : public Interface
{
public:
    explicit FakeComObject(int &live) : m_live(live) { ++m_live; }
    virtual ~FakeComObject() { --m_live; }
    FakeComObject(const FakeComObject &) = delete;
    FakeComObject &operator=(const FakeComObject &) = delete;

    ULONG STDMETHODCALLTYPE AddRef() override { return ++m_references; }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const ULONG left = --m_references;
        if (left == 0)
            delete this;
        return left;
    }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void **) override { return refuse("QueryInterface"); }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT *) override { return refuse("GetTypeInfoCount"); }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo **) override { return refuse("GetTypeInfo"); }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR *, UINT, LCID, DISPID *) override
    {
        return refuse("GetIDsOfNames");
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS *, VARIANT *, EXCEPINFO *,
                                     UINT *) override
    {
        return refuse("Invoke");
    }

protected:
    HRESULT refuse(const char *function)
    {
        ADD_FAILURE() << function << ": a COM call that nobody expects";
        return E_NOTIMPL;
    }

private:
    int &m_live;
    ULONG m_references = 1;
};

} // namespace ruvo::test

#pragma GCC diagnostic pop
