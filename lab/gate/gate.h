// The gate between the daemon and its kernel: the loop that lets the daemon run to its next system
// call, has that call served, and moves the clock when nothing else can happen. What it needs for
// that are the daemon's process (daemon.h), its threads and their time (clock.h), its descriptors
// to the models (links.h) and what becomes of each call (calls.h).
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "lab/gate/calls.h"
#include "lab/gate/clock.h"
#include "lab/gate/daemon.h"
#include "lab/gate/links.h"
#include "lab/phone/phone.h"
#include "lab/run/stage.h"
#include "lab/run/story.h"

namespace rvd::lab {

class Gate : public RunStage {
  public:
    struct Setup {
        Time start;
        bool real_time;
        std::chrono::seconds patience;  // wall-clock time after which a run has failed
        bool learn = false;             // every call is taken, and told to on_call
        int jitter = 0;                 // microseconds between two reads of what the daemon says
    };

    Gate(const Scenario& scenario, const Phone& phone, Story& story, Setup setup);
    ~Gate() override;

    void connect(Modem& modem) override;
    void start_daemon() override;
    bool reboot() override;
    std::string serve() override;
    std::map<int, std::string> descriptors() const override;

    pid_t daemon() const override { return daemon_.pid(); }
    void recount_faults() override;

    Time now() const override { return clock_.now(); }
    void hang_up(Node node) override { links_.hang_up(node); }
    void end_hang_up() override { links_.end_hang_up(calls_.served()); }
    void flush(Node node) override { links_.flush(node, calls_.served()); }
    void pump(Node node) override { links_.pump(node); }
    void panic() override;

  private:
    void serve_virtual_time();
    void serve_real_time();
    void step();
    void advance();
    void await_call(int timeout);
    void take_call();
    void set_time(Time now);
    void check_patience();
    void close_daemon();
    void let_daemon_exit();
    void widen() const;

    const Phone& phone_;
    const Setup setup_;
    const std::chrono::steady_clock::time_point began_;
    std::map<int, CallShape> shapes_;
    Filter filter_;

    Daemon daemon_;
    Clock clock_;
    Links links_;
    Calls calls_;
};

}  // namespace rvd::lab
