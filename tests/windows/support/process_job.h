#pragma once

#include <string>
#include <vector>

#include <windows.h>

namespace ruvo::test {

/// This process and all that it starts from now on, at any depth: they end with it at the latest. One that outlived
/// it would hold on to the output that it inherited, and whoever reads that would wait for it until the time is up.
/// One to a process, for the rest of its life: with the job's handle this process would be closed too.
class ProcessJob
{
public:
    /// Throws std::runtime_error if the job cannot be made.
    ProcessJob();

    struct Member
    {
        DWORD pid = 0;
        std::wstring executable; // file name, in lower case
    };
    /// What runs of the others. Not the hosts of consoles: they belong to Windows, and end after their consoles.
    std::vector<Member> others() const;

private:
    const HANDLE m_job;
};

/// Makes a failure of each process that still runs when a test is over, and ends it.
void failTestsThatLeaveProcesses(const ProcessJob &job);

} // namespace ruvo::test
