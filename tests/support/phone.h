// The fixture of the daemon's tests: a phone with a named modem, nothing on its disk, and
// everything the daemon says collected.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "bootdump/StdArgs.h"
#include "main/Container.h"
#include "tests/support/host.h"
#include "tests/support/kernel.h"

namespace rvd::test {

constexpr char kLogDir[] = "/data/vendor/log/rvd";

using Lines = std::vector<std::string>;

// The driver behind both nodes: a script of the requests it expects, in order.
class Driver {
  public:
    // The next request is this one; the daemon gets `result`, with EIO where that is negative.
    void expect(unsigned request, int result = 0) {
        script_.push_back({request, [result](void*) { return result; }});
    }
    // The next request is this one and carries a Record, which `answer` may read and fill.
    template <class Record, class Answer>
    void expect(unsigned request, Answer answer) {
        script_.push_back({request, [answer](void* record) {
                               return static_cast<int>(answer(*static_cast<Record*>(record)));
                           }});
    }

    int request(int fd, unsigned request, void* argument);
    // Fails the test for every request that never came.
    void verify();

  private:
    struct Step {
        unsigned request;
        std::function<int(void*)> answer;
    };
    std::deque<Step> script_;
};

// The far end of one node, played from a script. It takes its turn when the daemon begins to wait.
// A script is a line of words:
//
//   >9200            the daemon sends this command word
//   >920C+C0FFEE     ... this one with another behind it
//   >9201:3:1:2048   ... this frame: command, num_frames, curr_frame, payload bytes
//   <A200 <AD01:2:1:2048 <AD01:2:2:9/8
//                    the modem says this word; this frame; this frame, 8 bytes that it calls 9
//   <I:4096:2:10     ... announces a dump: size, steps, length of the reason
//   <T:word <R:503   ... says this text; this many letters r
//   <0 <C:15         ... says nothing more and hangs up; the first 15 bytes of an empty frame
//
// Payloads are consecutive bytes of pattern().
class Modem {
  public:
    // Puts the daemon's end into a slot of the active controller's records, and closes it again.
    Modem(int32_t* slot, const std::string& script);
    // Fails the test when anything expected was not sent, or anything else was.
    ~Modem();

    void take_turn();

  private:
    struct Step {
        char act;  // of the script's word
        std::string word;
        std::string bytes;
    };
    static std::string bytes_of(const std::string& word, size_t* payload);
    bool receive(std::string* bytes);

    int32_t* slot_;
    int fd_ = -1;
    std::deque<Step> script_;
};

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
    // The last of them, "" where there is none.
    std::string last_said();

    // A file of this test alone, opened by no-one.
    std::string path(const char* name) { return directory_ / name; }

    Driver& driver() { return driver_; }

  private:
    Driver driver_;
    TempDir directory_;
    int kernel_log_ = -1;
    size_t read_ = 0;
    size_t descriptors_ = 0;
};

// Files end at `bytes` while it lives, as if the disk were full. The logs too: keep it beyond them.
class FullDisk {
  public:
    explicit FullDisk(rlim_t bytes);
    ~FullDisk() { setrlimit(RLIMIT_FSIZE, &before_); }

  private:
    rlimit before_ = {};
};

void set_property(const std::string& name, const std::string& value);
std::string property(const std::string& name);
void set_cmdline(const std::string& text);
size_t open_descriptors();

// `size` bytes that differ from place to place.
std::string pattern(size_t size);

}  // namespace rvd::test
