// The main function of the Windows tests: like that of the other tests, but a process that was started for one
// test or program only has no application object, as the service's first thread must have none. Nothing that the
// tests start outlives them.

#include "windows/support/child_process.h"
#include "windows/support/process_job.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <optional>

int main(int argc, char **argv)
{
    using namespace ruvo::test;
    if (const std::optional<int> status = ChildProgram::runRequested(argc, argv))
        return *status;

    ::testing::InitGoogleTest(&argc, argv);
    std::optional<ProcessJob> job;
    std::optional<QCoreApplication> application;
    if (!isOwnProcessRequested(argc, argv)) { // else it belongs to the job of those tests
        job.emplace();
        failTestsThatLeaveProcesses(*job);
        application.emplace(argc, argv);
        QCoreApplication::setApplicationName("ruvod-tests");
    }
    return RUN_ALL_TESTS();
}
