// The fixture of the daemon's tests: a phone with a named modem, nothing on its disk, and
// everything the daemon says collected.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "bootdump/StdArgs.h"
#include "main/Container.h"
#include "tests/support/kernel.h"
#include "tests/test_host.h"

namespace rvd::test {

constexpr char kLogDir[] = "/data/vendor/log/rvd";

using Lines = std::vector<std::string>;

// The far end of one node: a script of what it expects and says, kept to in order. It takes its
// turn when the daemon begins to wait.
class Modem {
  public:
    // Puts the daemon's end into a slot of the active controller's records, which then owns it.
    explicit Modem(int32_t* slot);
    ~Modem();

    Modem& expects(std::string bytes);
    Modem& says(std::string bytes);
    Modem& hangs_up();

    void take_turn();
    // Fails the test when anything expected was not sent, or anything else was.
    void verify();

  private:
    enum class Act { EXPECT, SAY, HANG_UP };
    struct Step {
        Act act;
        std::string bytes;
    };
    bool receive(std::string* bytes);

    int fd_ = -1;
    std::deque<Step> script_;
};

// Builders of what travels on the link.
std::string word(uint32_t value);
std::string frame(uint32_t cmd, uint32_t num_frames, uint32_t curr_frame, std::string payload);
// A frame that announces `len` bytes and carries others.
std::string frame(uint32_t cmd, uint32_t num_frames, uint32_t curr_frame, uint32_t len,
                  std::string payload);

class Phone : public testing::Test {
  protected:
    void SetUp() override;
    // Holds the driver's script against what came, and the descriptors against those of SetUp.
    void TearDown() override;

    // Selects a modem as the command line does.
    void use_modem(const char* type);
    std_boot_args& boot() { return *Container::getStdBoot(); }
    std_dump_args& dump() { return *Container::getStdDump(); }

    // Lines of the kernel log since the last call, heads cut off; "! " stands for an error's head.
    Lines said();

    // A file of this test alone, opened by no-one.
    std::string path(const char* name) { return directory_ / name; }

    Driver& driver() { return kernel().driver; }

  private:
    TempDir directory_;
    int kernel_log_ = -1;
    size_t read_ = 0;
    size_t descriptors_ = 0;
};

void set_property(const std::string& name, const std::string& value);
std::string property(const std::string& name);
void set_cmdline(const std::string& text);
size_t open_descriptors();

// `size` bytes that differ from place to place.
std::string pattern(size_t size);

}  // namespace rvd::test
