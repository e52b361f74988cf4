// The fixtures of the in-process tests: an empty private root, and in it a phone with a named modem
// whose driver and boot loader follow a script.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "bootdump/BootDump.h"
#include "bootdump/StdArgs.h"
#include "log/Log.h"
#include "main/Container.h"
#include "protocol/ProtocolVelo.h"
#include "tests/support/kernel.h"
#include "tests/support/private_root.h"

namespace rvd::test {

namespace fs = std::filesystem;

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr char kLogDir[] = "/data/vendor/log/rvd";

using Lines = std::vector<std::string>;

// Empties what a test may write to.
class Host : public testing::Test {
  protected:
    void SetUp() override;
    // A file of this test alone.
    static std::string path(const std::string& name) { return std::string(kScratch) + "/" + name; }
};

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

// The far end of one node. It acts when the daemon begins to wait, by a script of words:
//
//   >9200            the daemon sends this command word
//   >920C+C0FFEE     ... with another word behind it
//   >9201:3:1:2048   ... this frame: command, num_frames, curr_frame, payload bytes
//   <A200 <AD01:2:1:2048 <AD01:2:2:9/8
//                    the modem sends this word; this frame; this frame, with 8 of the 9 bytes
//   <I:4096:2:10     ... a dump's announcement: size, steps, length of the reason
//   <T:word <R:503   ... this text; this many letters r
//   <0 <C:15         ... a hang-up; the first 15 bytes of an empty frame
//
// Payloads are consecutive bytes of pattern().
class Modem {
  public:
    // Puts the daemon's end into a slot of the active controller's records.
    Modem(int32_t* slot, const std::string& script);
    // Closes the slot. Fails the test when an expected packet is missing, or another was sent.
    ~Modem();

  private:
    void act();
    bool receive(std::string* bytes);

    int32_t* slot_;
    int fd_ = -1;
    std::deque<std::string> script_;
    size_t payload_ = 0;
};

class Phone : public Host {
  protected:
    void SetUp() override;
    // Checks that the driver's script is complete and that no descriptor is left open.
    void TearDown() override;

    // Selects a modem as the command line does.
    void use_modem(const char* type);
    std_boot_args& boot() { return *Container::getStdBoot(); }
    std_dump_args& dump() { return *Container::getStdDump(); }

    // Lines of the kernel log since the last call, heads cut off; "! " stands for an error's head.
    Lines said();
    // The last of them, "" where there is none.
    std::string last_said();

    // Calls the daemon while a modem with this script is behind a node. Returns the result.
    template <class Call>
    int with_modem(int32_t& slot, const std::string& script, const Call& call) {
        const Modem modem(&slot, script);
        return call();
    }

    Driver& driver() { return driver_; }

  private:
    Driver driver_;
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

// `size` bytes that differ from place to place.
std::string pattern(size_t size);

}  // namespace rvd::test
