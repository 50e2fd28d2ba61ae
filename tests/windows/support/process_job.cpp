#include "windows/support/process_job.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cwctype>
#include <memory>
#include <stdexcept>

namespace ruvo::test {

namespace {

constexpr DWORD endTimeout = 10000; // ms, for what was told to end and takes its time
constexpr DWORD pollInterval = 10;  // ms

/// What the system itself starts for a process, in the same job: for its console, and in Wine for the first window of
/// a desktop that nobody else has one on.
constexpr const wchar_t *systemPrograms[] = {L"conhost.exe", L"explorer.exe"};

struct CloseProcess
{
    void operator()(HANDLE process) const { CloseHandle(process); }
};
using Process = std::unique_ptr<void, CloseProcess>;

void require(BOOL done, const char *step)
{
    if (const DWORD error = GetLastError(); !done)
        throw std::runtime_error(std::string(step) + " failed: error " + std::to_string(error));
}

/// Empty once the process has ended.
std::wstring executableOf(DWORD pid)
{
    const Process process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, FALSE, pid));
    if (!process || WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0)
        return {};
    std::array<wchar_t, 1024> path{};
    auto size = static_cast<DWORD>(path.size());
    if (!QueryFullProcessImageNameW(process.get(), 0, path.data(), &size))
        return L"unknown";
    std::wstring name(path.data(), size);
    name.erase(0, name.find_last_of(L'\\') + 1);
    std::ranges::transform(name, name.begin(), [](wchar_t c) { return static_cast<wchar_t>(std::towlower(c)); });
    return name;
}

class LeftOverProcesses : public ::testing::EmptyTestEventListener
{
public:
    explicit LeftOverProcesses(const ProcessJob &job) : m_job(job) {}

    void OnTestEnd(const ::testing::TestInfo &) override
    {
        std::vector<ProcessJob::Member> left = m_job.others();
        for (DWORD waited = 0; !left.empty() && waited < endTimeout; waited += pollInterval) {
            Sleep(pollInterval);
            left = m_job.others();
        }
        for (const ProcessJob::Member &member : left) {
            ADD_FAILURE() << "the test leaves a process: " << ::testing::PrintToString(member.executable) << ", id "
                          << member.pid;
            const Process process(OpenProcess(PROCESS_TERMINATE, FALSE, member.pid));
            TerminateProcess(process.get(), 1);
        }
    }

private:
    const ProcessJob &m_job;
};

} // namespace

// Not inheritable: a child that had the job's handle would keep the job, and with it all the others.
ProcessJob::ProcessJob() : m_job(CreateJobObjectW(nullptr, nullptr))
{
    require(m_job ? TRUE : FALSE, "CreateJobObjectW");
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    require(SetInformationJobObject(m_job, JobObjectExtendedLimitInformation, &limits, sizeof(limits)),
            "SetInformationJobObject");
    require(AssignProcessToJobObject(m_job, GetCurrentProcess()), "AssignProcessToJobObject");
}

std::vector<ProcessJob::Member> ProcessJob::others() const
{
    constexpr std::size_t mostProcesses = 1024;
    alignas(JOBOBJECT_BASIC_PROCESS_ID_LIST)
        std::array<std::byte, sizeof(JOBOBJECT_BASIC_PROCESS_ID_LIST) + mostProcesses * sizeof(ULONG_PTR)>
            buffer{};
    require(QueryInformationJobObject(m_job, JobObjectBasicProcessIdList, buffer.data(),
                                      static_cast<DWORD>(buffer.size()), nullptr),
            "QueryInformationJobObject");
    const auto *list = reinterpret_cast<const JOBOBJECT_BASIC_PROCESS_ID_LIST *>(buffer.data());
    std::vector<Member> members;
    for (DWORD i = 0; i < list->NumberOfProcessIdsInList; ++i) {
        const auto pid = static_cast<DWORD>(list->ProcessIdList[i]);
        if (pid == GetCurrentProcessId())
            continue;
        std::wstring name = executableOf(pid);
        if (!name.empty() && std::ranges::find(systemPrograms, name) == std::end(systemPrograms))
            members.push_back({pid, std::move(name)});
    }
    return members;
}

void failTestsThatLeaveProcesses(const ProcessJob &job)
{
    ::testing::UnitTest::GetInstance()->listeners().Append(new LeftOverProcesses(job));
}

} // namespace ruvo::test
