#include "ipc/pipe_anchor.h"

#include "common/windows_handles.h"

#include <sddl.h>

#include <cstddef>
#include <string>
#include <utility>

namespace ruvo {

namespace {

// What reading and writing takes. The bit that is left out makes further instances; a file calls it appending, which
// is why writing would bring it along.
constexpr DWORD reading = FILE_GENERIC_READ;
constexpr DWORD writing = FILE_GENERIC_WRITE;
static_assert(((reading | writing) & ~DWORD{FILE_CREATE_PIPE_INSTANCE}) == 0x12019b);

QString failed(const char *function)
{
    return QString::fromLatin1(function) + ": " + qt_error_string(static_cast<int>(GetLastError()));
}

/// The account that this process runs as, in its text form; empty, with the last error set, if that fails.
std::wstring ownAccount()
{
    KernelHandle token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.out()))
        return {};
    alignas(TOKEN_USER) std::byte user[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD size = 0;
    if (!GetTokenInformation(token.get(), TokenUser, user, sizeof(user), &size))
        return {};
    LPWSTR text = nullptr;
    if (!ConvertSidToStringSidW(reinterpret_cast<const TOKEN_USER *>(user)->User.Sid, &text))
        return {};
    const LocalMemory owned(text);
    return text;
}

/// Null, and why in `error`, if it cannot be made.
LocalMemory accessList(QString &error)
{
    const std::wstring account = ownAccount();
    if (account.empty()) {
        error = failed("Account of the pipe");
        return nullptr;
    }
    // The account by name, as owner too: an owner may always change the list, and what LocalSystem makes belongs to
    // all administrators by default. Protected, so that nothing is inherited.
    const std::wstring text = L"O:" + account + L"D:P(D;;FA;;;NU)(A;;FA;;;" + account + L")(A;;0x12019b;;;WD)";
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1, &descriptor, nullptr))
        error = failed("Access list of the pipe");
    return LocalMemory(descriptor);
}

} // namespace

struct PipeAnchor::Instance
{
    FileHandle pipe;
};

PipeAnchor::PipeAnchor() = default;
PipeAnchor::~PipeAnchor() = default;

QString PipeAnchor::open(const QString &pipeName, Name name)
{
    QString error;
    const LocalMemory descriptor = accessList(error);
    if (!descriptor)
        return error;
    SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), descriptor.get(), FALSE};
    const std::wstring path = pipeName.toStdWString();
    // Without the flag, and with somebody else's pipe there, this would become one more instance of that pipe, under
    // that one's list. With instances of the daemon's own clients alive, the flag would refuse the daemon itself.
    const DWORD first = name == Name::unused ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0;
    // The rest as QLocalServer has it: what does not agree with the first instance is refused.
    FileHandle pipe(CreateNamedPipeW(path.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | first,
                                     PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, PIPE_UNLIMITED_INSTANCES, 0, 0,
                                     3000, &attributes));
    if (!pipe)
        return failed("CreateNamedPipeW");

    // A new instance waits for a client, who would never be served. One that was disconnected takes nobody any more.
    // Before that it has to be connected: to this end, or to a stranger who was faster and is cut off.
    const FileHandle client(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                        SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS, nullptr));
    if (!DisconnectNamedPipe(pipe.get()))
        return failed("DisconnectNamedPipe");
    m_instance = std::make_unique<Instance>();
    m_instance->pipe = std::move(pipe);
    return {};
}

void PipeAnchor::close()
{
    m_instance.reset();
}

bool PipeAnchor::isOpen() const
{
    return m_instance != nullptr;
}

} // namespace ruvo
