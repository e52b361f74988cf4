#include <gtest/gtest.h>
#include <signal.h>

#include "tests/support/private_root.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) rvd::test::enter_private_root();
    // Writing to a node whose modem hung up fails with EPIPE; a socket would also raise SIGPIPE.
    signal(SIGPIPE, SIG_IGN);
    return RUN_ALL_TESTS();
}
