#include <QCoreApplication>

#include <gtest/gtest.h>

// Tests may run event loops: the application is there before the first of them.
int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("ruvod-tests");
    return RUN_ALL_TESTS();
}
