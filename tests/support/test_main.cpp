#include <QCoreApplication>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdio>

// Tests may run event loops: the application is there before the first of them. Temporary files, and natively the
// sockets that stand for named pipes, go to a folder of this process, so that test programs may run side by side.
int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    const QTemporaryDir privateFolder;
    if (!privateFolder.isValid()) {
        std::fputs("no temporary folder could be made\n", stderr);
        return 1;
    }
    qputenv("TMPDIR", privateFolder.path().toLocal8Bit());

    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("ruvod-tests");
    return RUN_ALL_TESTS();
}
