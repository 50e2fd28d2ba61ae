#pragma once

#include "common/winsock_headers.h"

#include <memory>

namespace ruvo {

/// One outstanding overlapped call. It owns itself while it is in flight: from CompletionPort::issue until its
/// completion is dequeued it holds a reference to the record that it belongs to (and is a member of), so nothing is
/// freed under the kernel's hands, and a completion finds its way without a look into any table.
///
/// At most one call at a time for each operation.
class IoOperation : public OVERLAPPED
{
public:
    IoOperation() : OVERLAPPED{} {}
    virtual ~IoOperation() = default;
    IoOperation(const IoOperation &) = delete;
    IoOperation &operator=(const IoOperation &) = delete;

protected:
    /// On a worker thread. `record` is the reference that was held; `error` is NO_ERROR on success.
    virtual void completed(const std::shared_ptr<void> &record, DWORD bytes, DWORD error) noexcept = 0;

private:
    friend class CompletionPort;
    std::shared_ptr<void> m_record;
};

/// An operation whose completions go to a member function of its owner, which is the record or a part of it:
///
///     void onReceived(DWORD bytes, DWORD error);
///     MemberOperation<&Connection::onReceived> m_receive{*this};
template<auto Handler>
class MemberOperation;

template<typename Owner, void (Owner::*Handler)(DWORD bytes, DWORD error)>
class MemberOperation<Handler> final : public IoOperation
{
public:
    explicit MemberOperation(Owner &owner) : m_owner(owner) {}

protected:
    void completed(const std::shared_ptr<void> &, DWORD bytes, DWORD error) noexcept override
    {
        (m_owner.*Handler)(bytes, error);
    }

private:
    Owner &m_owner;
};

} // namespace ruvo
