#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <filesystem>

#include "tests/support/host.h"
#include "tests/support/private_root.h"

namespace {

namespace fs = std::filesystem;

// The platform layer asks the environment once, so all tests of a process share the store and the
// log; each finds them empty. The log is truncated, not removed: it stays open.
class CleanHost : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override {
        fs::remove_all(rvd::test::property_store());
        fs::create_directories(rvd::test::property_store());
        rvd::test::write_file(rvd::test::android_log(), "");
    }
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (testing::GTEST_FLAG(list_tests)) return RUN_ALL_TESTS();
    rvd::test::enter_private_root();
    // A modem that hangs up is a result to the daemon, on a socket as on the driver's nodes.
    signal(SIGPIPE, SIG_IGN);
    setenv("RVD_PROPERTY_DIR", rvd::test::property_store().c_str(), 1);
    setenv("RVD_ANDROID_LOG", rvd::test::android_log().c_str(), 1);
    testing::UnitTest::GetInstance()->listeners().Append(new CleanHost);
    return RUN_ALL_TESTS();
}
