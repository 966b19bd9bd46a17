// The main of every test program that uses Qt: one application object for the whole program, so that event
// loops work.
#include <gtest/gtest.h>

#include <QCoreApplication>

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    const QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
