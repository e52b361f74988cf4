#include <gtest/gtest.h>
#include <signal.h>

#include "tests/support/private_root.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) rvd::test::enter_private_root();
    // A modem that hangs up is a result to the daemon, on a socket as on the driver's nodes.
    signal(SIGPIPE, SIG_IGN);
    return RUN_ALL_TESTS();
}
