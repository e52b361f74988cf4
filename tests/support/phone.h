// Fixtures of the in-process tests: Host, an empty private root; Phone, a modem in it, whose driver
// and boot loader follow a script.
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

// Empties every directory that a test may write to.
class Host : public testing::Test {
  protected:
    void SetUp() override;
    // A file in the test's scratch directory.
    static std::string path(const std::string& name) { return std::string(kScratch) + "/" + name; }
};

// The driver of both nodes, as a script of the requests that it expects, in order.
class Driver {
  public:
    // Expects this request next and returns `result`, with EIO if it is negative.
    void expect(unsigned request, int result = 0) {
        script_.push_back({request, [result](void*) { return result; }});
    }
    // Expects this request next, with a Record that `answer` may read and fill.
    template <class Record, class Answer>
    void expect(unsigned request, Answer answer) {
        script_.push_back({request, [answer](void* record) {
                               return static_cast<int>(answer(*static_cast<Record*>(record)));
                           }});
    }

    int request(int fd, unsigned request, void* argument);
    // Fails the test for every request that has not arrived.
    void verify();

  private:
    struct Step {
        unsigned request;
        std::function<int(void*)> answer;
    };
    std::deque<Step> script_;
};

// The peer of one node. It runs each time the daemon begins to wait, and follows a script:
//
//   >9200            expects this command word from the daemon
//   >920C+C0FFEE     ... followed by this word
//   >9201:3:1:2048   ... this frame: command, num_frames, curr_frame, payload bytes
//   <A200            sends this word
//   <AD01:2:1:2048   ... this frame
//   <AD01:2:2:9/8    ... this frame, with only 8 of its 9 bytes
//   <I:4096:2:10     ... the announcement of a dump: size, steps, length of the reason
//   <T:word <R:503   ... this text; 503 letters r
//   <C:15            ... the first 15 bytes of an empty frame
//   <0               hangs up
//
// Payloads are consecutive bytes of pattern().
class Modem {
  public:
    // Stores the daemon's end of the link in a slot of the controller's records.
    Modem(int32_t* slot, const std::string& script);
    // Closes the slot. Fails the test if an expected packet is missing or an unexpected one was
    // sent.
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
    // Checks that the driver's script is complete and no descriptor has leaked.
    void TearDown() override;

    // Selects a modem as the command line does.
    void use_modem(const char* type);
    std_boot_args& boot() { return *Container::getStdBoot(); }
    std_dump_args& dump() { return *Container::getStdDump(); }

    // The lines of the kernel log since the last call, without their prefix; "! " marks an error.
    Lines said();
    // The last of them, or "".
    std::string last_said();

    // Runs `call` with a modem behind the node in `slot`. Returns its result.
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

// While it exists, no file, logs included, can grow beyond `bytes`, as if the disk were full.
class FullDisk {
  public:
    explicit FullDisk(rlim_t bytes);
    ~FullDisk() { setrlimit(RLIMIT_FSIZE, &before_); }

  private:
    rlimit before_ = {};
};

// `size` bytes in which neighbours differ and frames do not repeat.
std::string pattern(size_t size);

}  // namespace rvd::test
