// The stage on a real kernel: the nodes are the relay module's, the kernel's log, clock, disk and
// rights are the machine's own, and a panic or a reboot takes the machine along. Only for a machine
// that exists for this: its clock is set to the scenario's.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <vector>

#include "lab/device/relay_control.h"
#include "lab/phone/phone.h"
#include "lab/run/stage.h"
#include "lab/run/story.h"

namespace rvd::lab {

class RelayStage : public RunStage {
  public:
    // Throws Unable where the scenario wants of the kernel what a real one doesn't do on demand.
    // The phone is built. The clock is set to `now`; `start` is when the run began.
    RelayStage(const Scenario& scenario, const Phone& phone, Story& story, Time start, Time now,
               std::chrono::seconds patience);
    ~RelayStage() override;
    RelayStage(const RelayStage&) = delete;
    RelayStage& operator=(const RelayStage&) = delete;

    void start_daemon() override;
    bool reboot() override;
    std::string serve() override;
    std::map<int, std::string> descriptors() const override;

    Time now() const override;
    void hang_up(Node node) override;
    void end_hang_up() override;
    void flush(Node node) override;
    void pump(Node node) override;
    void panic() override;

  private:
    // One open descriptor of a node.
    struct Link {
        Node node;
        uint64_t id;
        bool hung = false;
        std::chrono::steady_clock::time_point hung_since = {};
        bool waits_for_hang_up = false;
        std::deque<Packet> out = {};  // refused for want of room, at most one
    };

    void put_nodes();
    void wait_for_something();
    void handle(const RelayControl::Event& event);
    void open_node(const RelayControl::Event& event);
    [[noreturn]] void go_down();
    void serve_request(const RelayControl::Event& event);
    void drain_kernel_log();
    void reap();
    void notice_rest();
    bool alone() const;
    bool parked() const;
    void end_daemon();
    void check_identity();
    void check_sinks();
    Link* link_with(uint64_t id);

    const Phone& phone_;
    const Time limit_;
    const std::chrono::steady_clock::time_point give_up_;
    RelayControl control_;
    int kernel_log_ = -1;

    pid_t pid_ = -1;
    int pidfd_ = -1;
    bool identified_ = false, panics_ = false;
    std::chrono::steady_clock::time_point last_activity_;
    std::vector<Link> links_;
    const RelayControl::Event* served_ = nullptr;

    // What the kernel's log has, and where in the Android log the same begins.
    std::vector<std::string> kernel_lines_;
    size_t android_start_ = 0;
};

}  // namespace rvd::lab
