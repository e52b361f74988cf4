// The stage on a real kernel: character devices for the nodes, and the machine's own log, clock,
// disk and rights. Where the machine is the phone, its clock is set to the scenario's and a panic
// or a reboot takes it down; where it is not, only the daemon starts afresh.
#pragma once

#include <chrono>

#include "lab/device/device_node.h"
#include "lab/device/kernel_log.h"
#include "lab/phone/phone.h"
#include "lab/run/stage.h"
#include "lab/run/story.h"

namespace rvd::lab {

class DeviceStage : public RunStage {
  public:
    struct Setup {
        Time start, now;  // of the run; of the phone's clock
        std::chrono::seconds patience;
        bool is_phone;        // the machine
        std::string prepare;  // a command that gets the phone's root before the daemon starts
    };

    // The phone is built. Throws Unable where the scenario wants of the kernel what a real one does
    // not do on demand.
    DeviceStage(const Scenario& scenario, const Phone& phone, Story& story, Setup setup);
    ~DeviceStage() override;
    DeviceStage(const DeviceStage&) = delete;
    DeviceStage& operator=(const DeviceStage&) = delete;

    void start_daemon() override;
    bool reboot() override;
    std::string serve() override;
    std::map<int, std::string> descriptors() const override;

    Time now() const override;
    void hang_up(Node node) override;
    void end_hang_up() override;
    void flush(Node node) override { nodes_[node == Node::dump].flush(); }
    void pump(Node node) override { nodes_[node == Node::dump].pump(); }
    void panic() override { panics_ = true; }

  private:
    void put_node(const std::string& path, mode_t mode, uid_t owner) const;
    void wait_for_something();
    void serve_node(size_t index);
    void go_down();
    void drain_kernel_log();
    void notice_end();
    bool alone() const;
    bool parked() const;
    void end_daemon();
    void check_rights();
    void check_logs();
    std::string proc(const char* file) const;

    using Clock = std::chrono::steady_clock;
    const Phone& phone_;
    const Setup setup_;
    DeviceNode nodes_[2];
    KernelLog kernel_log_;
    size_t android_start_;  // of the daemon's lines in the Android log
    int pid_ = -1, pidfd_ = -1;
    bool checked_ = false, panics_ = false;
    Clock::time_point begin_ = Clock::now(), last_activity_ = begin_, hung_up_ = begin_;
};

}  // namespace rvd::lab
